// SqliteHealthStore: the installation's health store, a SQLite file that
// every process of the installation shares.
//
// On a phone the health store is the platform's and outlives the
// application; here it is "<health folder>/health.sqlite". Each process
// opens it as one application (this one, or another that writes sleep), so
// that another application's writes are seen by this one as on the phone.
// The user's authorization answers are kept in the file per application and
// type, so that a later process finds them. An observer query hears every
// committed write to the file, by this process at once and by other
// processes as soon as the file changes on disk.

#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>

#include "tarnwell/healthkit/HealthStore.h"

namespace tarnwell {

class SqliteHealthStore final : public HKHealthStore {
 public:
  // Opens (making the folder and the file if needed) as application `source`,
  // "Tarnwell", "org.vostra.tarnwell" unless given. Throws on a file that
  // cannot be opened or is not a health store.
  explicit SqliteHealthStore(const std::filesystem::path& folder, std::optional<HKSource> source = std::nullopt);
  ~SqliteHealthStore() override;

  // What this application's user answers from now on, kept in the file.
  void setAuthorizationAnswer(HKSampleType type, HKAuthorizationAnswer answer);
  // Every sample in the file, of every source, by start; for tools that
  // show the store as it is.
  std::vector<HKSample> allSamples() const;
  // Saves the samples that `next` hands over, batch after batch until it
  // returns false (the batch filled by that last call is saved too), under
  // the sources they carry, as an import of another phone's export does: in
  // one transaction, so all or nothing (a throw from `next` or an invalid
  // sample leaves the file as it was), and observers hear it once. A sample
  // without a uuid gets one, one whose uuid is in the file already is
  // skipped, one without a source is this application's. Needs no
  // authorization. Memory use does not grow with the number of samples.
  // The file stays locked for writing meanwhile, and `next` must not use
  // this store. Returns how many were saved.
  std::size_t importSamples(const std::function<bool(std::vector<HKSample>& batch)>& next);

  bool isAvailable(HKSampleType type) const override;
  HKAuthorizationStatus authorizationStatus(HKSampleType type) const override;
  void requestAuthorization(std::optional<std::set<HKSampleType>> typesToShare,
                            std::optional<std::set<HKSampleType>> typesToRead, Completion completion) override;
  void execute(std::shared_ptr<HKSampleQuery> query) override;
  void execute(std::shared_ptr<HKObserverQuery> query) override;
  void stop(const std::shared_ptr<HKObserverQuery>& query) override;
  void save(HKSample sample, Completion completion) override;
  void deleteObjects(std::vector<HKSample> samples, Completion completion) override;
  HKSource defaultSource() const override;

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace tarnwell
