#pragma once

#include <cstdint>
#include <memory>

#include "curvana/CurvanaPlugin.h"
#include "session/PFilterComponents.h"

namespace Project {

// Makes the components of a new plug-in instance.
using ComponentsFactory = std::unique_ptr<PFilterComponents> (*)();

// The body of EntryFI. The instance (a PFilter) is created on the first
// selector and kept in *data; cvSelectorUnload destroys it and clears *data.
// cvSelectorRegistration writes the address of FilterRegistration() into
// *data and makes no instance.
// A record of another ABI version or size is refused with cvErrParam before
// anything else is touched. No exception leaves: out of memory becomes
// cvErrMemory, any other exception cvErrFilterFailed (reported on stderr).
void HandleEntry(int16_t selector, CvFilterRecord* record, intptr_t* data, int16_t* result,
                 ComponentsFactory factory) noexcept;

}  // namespace Project
