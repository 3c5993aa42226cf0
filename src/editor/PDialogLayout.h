#pragma once

#include <QString>
#include <string_view>

namespace Project {

// The path of an editor layout compiled into the module as a Qt resource
// (the dialog's is "PDialog.zel"); load it with
// Velmo::CLayoutLoader::LoadResource.
QString DialogLayoutPath(std::string_view name = "PDialog.zel");

}  // namespace Project
