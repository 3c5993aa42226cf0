#pragma once

#include <QString>

namespace Project {

// The editor dialog's Zel layout, compiled into the module as a Qt resource;
// load it with Velmo::CLayoutLoader::LoadResource.
QString DialogLayoutPath();

}  // namespace Project
