// The module's only exported symbol.
#include "curvana/CurvanaPlugin.h"
#include "plugin/ModuleComponents.h"
#include "session/PluginEntry.h"

extern "C" CV_EXPORT void EntryFI(int16_t selector, CvFilterRecord* record, intptr_t* data,
                                  int16_t* result) {
    Project::HandleEntry(selector, record, data, result, &Project::CreateModuleComponents);
}
