// BackgroundWorker: the one thread on which everything that comes from the
// cloud is written into the store.
//
// start() hands the worker a block and waits until it has run, so writes
// from the cloud go into the store one at a time, in the order their callers
// came, and a record and its later deletion cannot swap. A call made from a
// block already running on the worker runs at once, in place.
//
// The records of one fetch come a few hundred in one block of the cloud's
// queue. Their writes share one transaction (batch()), committed when that
// block ends or when commitPending() is called, whichever comes first; the
// observers hear each write as if it had been committed alone. A change
// token must not be kept before the records it covers: whoever stores one
// calls commitPending() first.

#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "tarnwell/platform/DispatchQueue.h"
#include "tarnwell/store/Store.h"

namespace tarnwell {
class Environment;
}

namespace tarnwell::sync {

class BackgroundWorker {
 public:
  // The worker of the installed Environment, made on first use.
  static BackgroundWorker& shared();

  explicit BackgroundWorker(Environment& environment);

  // Runs `block` on the worker and waits for it; an exception it throws
  // reaches the caller.
  void start(const std::function<void()>& block);
  bool isCurrentThread() const;

  // On the worker only: the open batch of the store `configuration` names.
  store::BatchWriter& batch(const store::StoreConfiguration& configuration);
  // Commits every open batch.
  void commitPending();
  // "BackgroundWorker-<UUID>".
  const std::string& name() const { return name_; }

 private:
  void commitOpenBatches();

  std::string name_;
  std::shared_ptr<DispatchQueue> thread_;
  // The queue whose block called start(), while that block runs.
  DispatchQueue* caller_ = nullptr;
  std::map<std::filesystem::path, std::unique_ptr<store::BatchWriter>> batches_;
};

}  // namespace tarnwell::sync
