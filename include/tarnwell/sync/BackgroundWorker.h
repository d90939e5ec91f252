// BackgroundWorker: the one thread on which everything that comes from the
// cloud is written into the store.
//
// start() hands the worker a block and waits until it has run, so writes
// from the cloud go into the store one at a time, in the order their callers
// came, and a record and its later deletion cannot swap. A call made from a
// block already running on the worker runs at once, in place.

#pragma once

#include <functional>
#include <memory>
#include <string>

#include "tarnwell/platform/DispatchQueue.h"

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
  // "BackgroundWorker-<UUID>".
  const std::string& name() const { return name_; }

 private:
  std::string name_;
  std::shared_ptr<DispatchQueue> thread_;
};

}  // namespace tarnwell::sync
