#include "framework/CNonPollingTracker.h"

namespace Velmo {

void CNonPollingTracker::Start(const CMouseEvent&) {}
void CNonPollingTracker::Track(const CMouseEvent&) {}
void CNonPollingTracker::Finish(const CMouseEvent&) {}
void CNonPollingTracker::Cancel() {}
void CNonPollingTracker::ModifiersChanged(uint32_t) {}

}  // namespace Velmo
