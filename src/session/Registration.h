#pragma once

#include "curvana/CurvanaPlugin.h"

namespace Project {

// The filter's registration: the image modes and depths it takes, the
// largest image, the host version it runs under and its scripting
// terminology (the keys and enumerators a recorded action may carry, with
// their display names). Static and immutable; what cvSelectorRegistration
// hands out.
const CvRegistration& FilterRegistration();

}  // namespace Project
