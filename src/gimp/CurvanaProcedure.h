// The procedure "plug-in-curvana": its registration with GIMP and one run,
// in any of GIMP's three run modes.
//   interactive       the Curvana editor (the module's own dialog)
//   non-interactive   the parameters, from Script-Fu or Python-Fu
//   with-last-vals    the last action again (kept by GIMP with gimp_set_data)
#pragma once

#include <libgimp/gimp.h>

#include <string>

namespace Curvana::Gimp {

inline constexpr const char* kProcedureName = "plug-in-curvana";

struct ProcedureResult {
    GimpPDBStatusType status = GIMP_PDB_SUCCESS;
    std::string message;  // why it failed, for the user; empty on success
};

void installProcedure();
ProcedureResult runProcedure(const gchar* name, gint nparams, const GimpParam* params);

}  // namespace Curvana::Gimp
