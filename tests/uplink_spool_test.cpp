// The uplink's spool, in real folders.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <set>
#include <sstream>

#include "tests/standin_device.h"
#include "uplink/spool.h"
#include "util/clock.h"

namespace {

namespace fs = std::filesystem;
using Full = UplinkSettings::Full;

constexpr size_t kLimit = 8192;  // segments are of a quarter

std::string id_of(int event) {
  return event > 0 ? "R-" + std::to_string(event) : "";
}
int event_of(const std::string& id) {
  return id.empty() ? 0 : std::stoi(id.substr(2));
}

UplinkRecord record_of(int event) {
  UplinkRecord record;
  record.id = id_of(event);
  record.name = "door";
  record.payload = "{\"id\":\"" + record.id + "\"}" + std::string(static_cast<size_t>(event % 90), '.');
  record.urgent = event % 3 == 0;
  return record;
}

class UplinkSpool : public testing::Test {
 protected:
  void SetUp() override {
    standin::reset();
    signal(SIGXFSZ, SIG_IGN);
    char path[] = "/tmp/spool-XXXXXX";
    ASSERT_NE(mkdtemp(path), nullptr);
    root = path;
    folder = root + "/var/spool";
    open();
  }
  void TearDown() override {
    spool.reset();
    fs::remove_all(root);
  }

  void open(Full full = Full::drop_oldest, size_t limit = kLimit) {
    spool.reset();
    spool = std::make_unique<Spool>(folder, limit, full);
  }
  // As after a crash: what was not synced is gone.
  void restart(Full full = Full::drop_oldest) { open(full); }

  void append(int count) {
    for (; count > 0; --count) {
      if (spool->append(record_of(++last)) != 0) kept = last;
    }
  }
  bool sync() { return spool->sync(id_of(last)); }

  // What is in the spool: "1 2 3-7(5) 8", a gap with its count.
  std::string content() {
    std::string text;
    UplinkRecord record;
    for (uint64_t number = 0; spool->read(number, record); ++number) {
      text += (text.empty() ? "" : " ") + record.id.substr(2);
      if (record.is_gap()) text += "-" + record.last_id.substr(2) + "(" + std::to_string(record.count) + ")";
    }
    return text;
  }

  // Whether each event up to `end` is acknowledged, in the spool, or part of a gap; and what is in the spool is in
  // order and as it was.
  testing::AssertionResult holds(int end) {
    std::set<int> covered = acknowledged;
    UplinkRecord record;
    uint64_t records = 0;
    int before = 0;
    for (uint64_t number = 0; spool->read(number, record); ++number, ++records) {
      const int first = event_of(record.id);
      if (first < before && !was_damaged) return testing::AssertionFailure() << first << " comes behind " << before;
      if (!record.is_gap()) {
        const UplinkRecord sent = record_of(first);
        if (record.payload != sent.payload || record.name != sent.name || record.urgent != sent.urgent) {
          return testing::AssertionFailure() << "another payload of " << first;
        }
        if (first == before && !was_damaged) return testing::AssertionFailure() << first << " comes twice";
      }
      before = record.is_gap() ? event_of(record.last_id) : first;
      for (int event = first; event <= before; ++event) covered.insert(event);
    }
    if (records != spool->state().records) {
      return testing::AssertionFailure() << records << " records, and state says " << spool->state().records;
    }
    for (int event = 1; event <= end; ++event) {
      if (covered.count(event) == 0) return testing::AssertionFailure() << event << " is lost: " << content();
    }
    return testing::AssertionSuccess();
  }

  std::vector<std::string> files() const {
    std::vector<std::string> found;
    for (const auto& entry : fs::directory_iterator(folder)) found.push_back(entry.path());
    std::sort(found.begin(), found.end());
    return found;
  }

  std::string root;
  std::string folder;
  std::unique_ptr<Spool> spool;
  int last = 0;  // the last event appended,
  int kept = 0;  // and the last one for which that was not refused
  std::set<int> acknowledged;
  bool was_damaged = false;  // then records behind the position may come twice
};

TEST_F(UplinkSpool, KeepsRecordsInOrderAcrossRestarts) {
  append(3);
  UplinkRecord gap;
  gap.id = "R-4", gap.last_id = "R-6", gap.count = 0;
  last = 6;
  spool->append(gap);
  append(1);
  EXPECT_EQ(content(), "1 2 3 4-6(0) 7");
  EXPECT_TRUE(sync());
  append(1);
  restart();
  EXPECT_EQ(content(), "1 2 3 4-6(0) 7");
  EXPECT_EQ(spool->position(), "R-7");
  EXPECT_TRUE(holds(7));
}

// Seeded: appends, acknowledgements, syncs, restarts, damage, against the invariant.
TEST_F(UplinkSpool, LosesNothingThatItDoesNotDeclare) {
  for (unsigned seed = 1; seed <= 60; ++seed) {
    SCOPED_TRACE(seed);
    spool.reset();
    fs::remove_all(folder);
    last = kept = 0;
    acknowledged.clear();
    was_damaged = false;
    std::mt19937 random(seed);
    const Full full = seed % 2 == 0 ? Full::drop_newest : Full::drop_oldest;
    open(full);
    for (int step = 0; step < 150; ++step) {
      const auto what = random() % 100;
      if (what < 60) {
        append(static_cast<int>(random() % 12));
      } else if (what < 80) {
        std::vector<std::pair<uint64_t, UplinkRecord>> flight;
        UplinkRecord record;
        for (uint64_t number = 0; flight.size() < 20 && spool->read(number, record); ++number) {
          flight.emplace_back(number, record);
        }
        std::shuffle(flight.begin(), flight.end(), random);
        flight.resize(random() % (flight.size() + 1));
        for (const auto& [number, sent] : flight) {
          spool->acknowledge(number);
          const int end = event_of(sent.is_gap() ? sent.last_id : sent.id);
          for (int event = event_of(sent.id); event <= end; ++event) acknowledged.insert(event);
        }
      } else if (what < 95) {
        EXPECT_TRUE(sync());
      } else {
        spool.reset();
        const std::vector<std::string> found = files();
        if (!found.empty() && what < 98) {
          was_damaged = true;
          const std::string& victim = found[random() % found.size()];
          if (random() % 2 == 0) {
            fs::resize_file(victim, random() % (fs::file_size(victim) + 1));
          } else {
            std::fstream file(victim, std::ios::in | std::ios::out | std::ios::binary);
            file.seekp(static_cast<std::streamoff>(random() % fs::file_size(victim)));
            file.put(static_cast<char>(random()));
          }
        }
        open(full);
        last = kept = event_of(spool->position());  // from there on the daemon is asked again
      }
      ASSERT_TRUE(holds(kept)) << "step " << step;
    }
  }
}

}  // namespace
