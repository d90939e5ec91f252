// PendingRelationshipsWorker: list links whose target has not arrived yet.
//
// Records of one fetch come in no particular order, so a record may name,
// in one of its lists, an element that is not in the store yet. The mapping
// (parseFromRecord) appends the elements it finds and leaves each missing
// one here, with the property and the owner that wait for it. After the
// fetch, resolvePendingListElements() appends the elements that have come
// since, on the BackgroundWorker thread, in writes that notify nobody (what
// came from the cloud must not go back to it), and keeps the rest for a
// later run.
//
// A worker is generic over the element class. Records are values, so an
// owner is kept by its class and key, with a function that appends to its
// list in the store. The map lives in memory only: pending links die with the
// process. It holds one owner per element key; of two owners waiting for one
// element, the later wins.

#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tarnwell/platform/FatalError.h"
#include "tarnwell/records/Properties.h"
#include "tarnwell/store/Store.h"
#include "tarnwell/sync/BackgroundWorker.h"
#include "tarnwell/sync/CloudSync.h"

namespace tarnwell::sync {

// The record whose list waits for an element.
struct PendingOwner {
  std::string className;
  std::string primaryKey;
  // Whether the owner is still in the store to take the element.
  std::function<bool(store::Store&)> exists;
  // Appends the element of that key to the owner's list in the store.
  std::function<void(store::Store&, const std::string& elementKey)> append;

  // The owner of class Owner with key `primaryKey`, waiting in its list `member`.
  template <class Owner, class Element>
  static PendingOwner of(std::string primaryKey, std::vector<records::Ref<Element>> Owner::*member);
};

// Stands for an absent list element class among a sync object's three.
struct NoListElement {
  static constexpr std::string_view className = {};
};

template <class Element>
class PendingRelationshipsWorker {
 public:
  // The pending owner of each element key, with the property that waits.
  using PendingMap = std::map<std::string, std::pair<std::string, PendingOwner>>;

  // The store to resolve in; without one nothing is resolved. A
  // configuration, not a Store, since a Store is bound to its thread.
  void setRealmConfiguration(std::optional<store::StoreConfiguration> configuration) {
    std::lock_guard lock(mutex_);
    configuration_ = std::move(configuration);
  }

  void addToPendingList(std::string elementPrimaryKeyValue, std::string propertyName, PendingOwner owner) {
    std::lock_guard lock(mutex_);
    pending_.insert_or_assign(std::move(elementPrimaryKeyValue),
                              std::make_pair(std::move(propertyName), std::move(owner)));
  }

  // On the BackgroundWorker, when there is a store and something waits. An
  // owner gone from the store ends the run; an element still missing is
  // logged and kept.
  void resolvePendingListElements();

  PendingMap pendingListElementPrimaryKeyValue() const {
    std::lock_guard lock(mutex_);
    return pending_;
  }

 private:
  void resolve(store::Store& store);

  mutable std::mutex mutex_;
  std::optional<store::StoreConfiguration> configuration_;
  PendingMap pending_;
};

template <class Owner, class Element>
PendingOwner PendingOwner::of(std::string primaryKey, std::vector<records::Ref<Element>> Owner::*member) {
  PendingOwner owner;
  owner.className = std::string(Owner::className);
  owner.primaryKey = primaryKey;
  owner.exists = [primaryKey](store::Store& store) { return store.object<Owner>(primaryKey).has_value(); };
  owner.append = [primaryKey, member](store::Store& store, const std::string& elementKey) {
    store.writeNotifyingNobody([&](store::WriteTransaction& transaction) {
      auto record = store.object<Owner>(primaryKey);
      if (!record) return;
      ((*record).*member).push_back(records::Ref<Element>{elementKey});
      transaction.add(*record);
    }, store::Origin::elsewhere);
  };
  return owner;
}

template <class Element>
void PendingRelationshipsWorker<Element>::resolvePendingListElements() {
  if constexpr (records::HasProperties<Element>) {
    std::optional<store::StoreConfiguration> configuration;
    {
      std::lock_guard lock(mutex_);
      if (!configuration_ || pending_.empty()) return;
      configuration = configuration_;
    }
    BackgroundWorker::shared().start([this, &configuration] {
      auto store = store::Store::open(*configuration);
      resolve(store);
    });
  }
}

template <class Element>
void PendingRelationshipsWorker<Element>::resolve(store::Store& store) {
  std::lock_guard lock(mutex_);
  for (auto it = pending_.begin(); it != pending_.end();) {
    const auto& [elementKey, waiting] = *it;
    const PendingOwner& owner = waiting.second;
    if (!owner.exists(store)) return;
    if (!store.object<Element>(elementKey)) {
      CloudSync::shared().log("Cannot find existing resolving record in Realm");
      ++it;
      continue;
    }
    try {
      owner.append(store, elementKey);
    } catch (const std::exception& failure) {
      fatalError("Cannot append the resolved " + std::string(Element::className) + " " + elementKey + " to " +
                 owner.className + " " + owner.primaryKey + ": " + failure.what());
    }
    it = pending_.erase(it);
  }
}

}  // namespace tarnwell::sync
