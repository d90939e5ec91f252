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
  DispatchQueue* const caller = DispatchQueue::current();
  thread_->sync([this, caller, &block] {
    struct Calling {
      DispatchQueue*& slot;
      ~Calling() { slot = nullptr; }
    } calling{caller_ = caller};
    block();
    // A caller outside any queue has no block whose end would commit.
    if (!caller) commitOpenBatches();
  });
}

store::BatchWriter& BackgroundWorker::batch(const store::StoreConfiguration& configuration) {
  auto& slot = batches_[configuration.fileURL];
  if (!slot) {
    slot = std::make_unique<store::BatchWriter>(configuration);
    if (caller_) caller_->async([] { BackgroundWorker::shared().commitPending(); });
  }
  return *slot;
}

void BackgroundWorker::commitPending() {
  start([this] { commitOpenBatches(); });
}

void BackgroundWorker::commitOpenBatches() {
  // Each goes once committed, so that the next batch opens on a fresh connection.
  auto open = std::move(batches_);
  batches_.clear();
  for (auto& [file, batch] : open) batch->commit();
}

bool BackgroundWorker::isCurrentThread() const { return DispatchQueue::current() == thread_.get(); }

}  // namespace tarnwell::sync
