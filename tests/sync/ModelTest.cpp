// Two devices write at random while the cloud misbehaves in every way the
// sync layer is meant to survive: asking to wait, refusing a request as too
// large, expiring its tokens, losing pushes. Once the cloud behaves again
// and both devices have pulled, both stores and the cloud hold the same
// live records. A step that loses a write shows up as a difference, and the
// seed and the step list say how to replay it.

#include <random>
#include <sstream>

#include "sync/SyncFixture.h"

namespace tarnwell::testing {
namespace {

class ModelTest : public SyncFixture, public ::testing::WithParamInterface<unsigned> {
 protected:
  template <class Record>
  static std::vector<Record> liveInCloud(const std::vector<CKRecord>& records, store::Store& store) {
    std::vector<Record> live;
    for (const auto& record : records) {
      auto parsed = sync::parseFromRecord<Record>(record, store);
      if (!parsed.isDeleted) live.push_back(std::move(parsed));
    }
    std::sort(live.begin(), live.end(), [](const Record& x, const Record& y) { return x.id < y.id; });
    return live;
  }

  template <class Record>
  void expectEqualEverywhere(const std::string& steps) {
    const auto onA = devices["A"].live<Record>(), onB = devices["B"].live<Record>();
    // Parsing reads the targets of links from a store; these classes have none.
    auto scratch = store::Store::open(devices["A"].configuration);
    const auto inCloud =
        liveInCloud<Record>(cloud->records(CKDatabaseScope::privateScope, std::string(Record::className)), scratch);
    EXPECT_EQ(onA, onB) << Record::className << " differ between the devices after " << steps;
    EXPECT_EQ(onA, inCloud) << Record::className << " differ between A and the cloud after " << steps;
  }
};

TEST_P(ModelTest, RandomWritesUnderHandledFaultsEndWithBothDevicesAndTheCloudEqual) {
  std::mt19937 random(GetParam());
  const auto chance = [&random](int percent) { return std::uniform_int_distribution<int>(0, 99)(random) < percent; };
  const auto pick = [&random](std::size_t size) {
    return std::uniform_int_distribution<std::size_t>(0, size - 1)(random);
  };

  for (const char* name : {"A", "B"}) hearPushes(start(name));
  std::ostringstream steps;
  for (int step = 0; step < 80; ++step) {
    Device& d = devices[chance(50) ? "A" : "B"];
    const std::string who = &d == &devices["A"] ? "A" : "B";
    auto pickups = d.live<Pickup>();
    const int action = std::uniform_int_distribution<int>(0, 99)(random);
    if (action < 30 || pickups.empty()) {
      // Now and then a batch beyond the cloud's limit, which is cut into pieces.
      const int count = chance(10) ? 380 : 1 + static_cast<int>(pick(3));
      write(d, this->pickups(count));
      steps << who << " adds " << count << " pickups; ";
    } else if (action < 45) {
      const Date start = env.clock().now();
      write(d, std::vector<Walk>{Walk(start, start + 600)});
      steps << who << " adds a walk; ";
    } else if (action < 65) {
      Pickup edited = pickups[pick(pickups.size())];
      edited.end = *edited.end + 30;
      edited.isIgnoredForSleepTime = !edited.isIgnoredForSleepTime;
      write(d, std::vector<Pickup>{edited});
      steps << who << " edits " << *edited.id << "; ";
    } else if (action < 75) {
      Pickup deleted = pickups[pick(pickups.size())];
      deleted.isDeleted = true;
      write(d, std::vector<Pickup>{deleted});
      steps << who << " deletes " << *deleted.id << "; ";
    } else if (action < 83) {
      const auto kinds = std::vector<CKOperationKind>{
          CKOperationKind::modifyRecords, CKOperationKind::fetchDatabaseChanges, CKOperationKind::fetchZoneChanges};
      const CKOperationKind kind = kinds[pick(kinds.size())];
      const int code = std::vector<int>{6, 7, 23}[pick(3)];
      const double seconds = 0.5 + static_cast<double>(pick(8)) / 2;
      cloud->addFault({.code = code, .retryAfter = seconds, .times = 1 + static_cast<int>(pick(2)), .on = kind});
      steps << "the cloud asks to wait " << seconds << " s on " << name(kind) << "; ";
    } else if (action < 88) {
      cloud->expireTokens();
      steps << "tokens expire; ";
    } else if (action < 93) {
      cloud->dropPushes(1);
      steps << "a push is lost; ";
    } else {
      d.engine->pull(nullptr);
      steps << who << " pulls; ";
    }
    env.advance(static_cast<double>(pick(4)));
  }

  // The cloud behaves again: every retry runs, then both devices pull.
  cloud->clearFaults();
  env.advance(60);
  for (int round = 0; round < 2; ++round) {
    for (const char* name : {"A", "B"}) devices[name].engine->pull(nullptr);
    env.advance(1);
  }
  expectEqualEverywhere<Pickup>(steps.str());
  expectEqualEverywhere<Walk>(steps.str());
  EXPECT_FALSE(devices["A"].live<Pickup>().empty());
}

INSTANTIATE_TEST_SUITE_P(Seeds, ModelTest, ::testing::Values(1u, 2u, 3u, 4u, 5u, 6u));

}  // namespace
}  // namespace tarnwell::testing
