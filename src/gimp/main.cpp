// curvana-gimp: GIMP 2.10 runs this executable as a plug-in. It registers the
// procedure "plug-in-curvana" (Filters > Distorts > Curvana…) and, when the
// procedure runs, hosts the Curvana filter module on the chosen layer.
#include <libgimp/gimp.h>

#include <array>
#include <string>

#include "CurvanaProcedure.h"
#include "hostkit/ProcessMemory.h"

namespace {

void query() {
    Curvana::Gimp::installProcedure();
}

void run(const gchar* name, gint nparams, const GimpParam* params, gint* nreturnVals,
         GimpParam** returnVals) {
    // libgimp reads the answer after run returns and never frees it.
    static std::array<GimpParam, 2> values{};
    static std::string message;
    const Curvana::Gimp::ProcedureResult result =
        Curvana::Gimp::runProcedure(name, nparams, params);
    message = result.message;
    values[0].type = GIMP_PDB_STATUS;
    values[0].data.d_status = result.status;
    *nreturnVals = 1;
    if (result.status != GIMP_PDB_SUCCESS && result.status != GIMP_PDB_CANCEL && !message.empty()) {
        // GIMP shows (and Script-Fu reports) this text as the error.
        values[1].type = GIMP_PDB_STRING;
        values[1].data.d_string = message.data();
        *nreturnVals = 2;
    }
    *returnVals = values.data();
}

const GimpPlugInInfo kPlugInInfo = {nullptr, nullptr, query, run};

}  // namespace

int main(int argc, char** argv) {
    Curvana::HostKit::setUpProcessMemory(argv);
    return gimp_main(&kPlugInInfo, argc, argv);
}
