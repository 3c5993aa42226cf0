#include "editor/PWorkspace.h"

namespace Project {

void PWorkspace::RequestResolve() {
    if (batchDepth_ > 0) {
        resolvePending_ = true;
        return;
    }
    Resolve();
}

PWorkspace::ResolveBatch::~ResolveBatch() {
    if (--workspace_.batchDepth_ == 0 && workspace_.resolvePending_) {
        workspace_.resolvePending_ = false;
        workspace_.Resolve();
    }
}

}  // namespace Project
