#include "tarnwell/sync/BackgroundWorker.h"

#include "tarnwell/platform/Environment.h"
#include "tarnwell/platform/Uuid.h"

namespace tarnwell::sync {

BackgroundWorker& BackgroundWorker::shared() { return Environment::current().component<BackgroundWorker>(); }

BackgroundWorker::BackgroundWorker(Environment& environment)
    : name_("BackgroundWorker-" + makeUUIDString()), thread_(environment.makeThreadQueue(name_)) {}

void BackgroundWorker::start(const std::function<void()>& block) {
  // The worker waiting for itself would wait forever.
  if (isCurrentThread()) return block();
  thread_->sync(block);
}

bool BackgroundWorker::isCurrentThread() const { return DispatchQueue::current() == thread_.get(); }

}  // namespace tarnwell::sync
