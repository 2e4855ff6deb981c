// The uplink's spool, in real folders.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <sstream>

#include "tests/standin_device.h"
#include "uplink/spool.h"
#include "util/clock.h"

// The monotonic clock, put forward by the tests.
static int64_t g_skipped_ms = 0;
extern "C" int __real_clock_gettime(clockid_t clock, timespec* out);
extern "C" int __wrap_clock_gettime(clockid_t clock, timespec* out) {
  const int result = __real_clock_gettime(clock, out);
  if (clock == CLOCK_MONOTONIC) out->tv_sec += g_skipped_ms / 1000;
  return result;
}

namespace {

namespace fs = std::filesystem;
using Full = UplinkSettings::Full;

constexpr unsigned kSeeds = 100;
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
  return record;
}

class UplinkSpool : public testing::Test {
 protected:
  void SetUp() override {
    standin::reset();
    signal(SIGXFSZ, SIG_IGN);
    root = access("/dev/shm", W_OK) == 0 ? "/dev/shm/spool-XXXXXX" : "/tmp/spool-XXXXXX";  // syncs cost nothing there
    ASSERT_NE(mkdtemp(root.data()), nullptr);
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
      const uint64_t number = spool->append(record_of(++last));
      given_numbers.push_back(number);
      if (number != 0) kept = last;
    }
  }
  bool sync() { return spool->sync(id_of(last)); }

  // What is in the spool: "1 2 3-7(5) 8", a gap with its count.
  std::string content() {
    std::string text;
    uint64_t number = 0;
    for (; const UplinkRecord* const record = spool->read(number); ++number) {
      text += (text.empty() ? "" : " ") + record->id.substr(2);
      if (record->is_gap()) text += "-" + record->last_id.substr(2) + "(" + std::to_string(record->count) + ")";
    }
    return text;
  }

  // Whether each event up to `end` is acknowledged, in the spool, or part of a gap; and what is in the spool is in
  // order and as it was.
  testing::AssertionResult holds(int end) {
    std::set<int> covered = acknowledged;
    uint64_t number = 0;
    uint64_t records = 0;
    int before = 0;
    for (; const UplinkRecord* const found = spool->read(number); ++number, ++records) {
      const UplinkRecord& record = *found;
      const int first = event_of(record.id);
      if (first < before && !was_damaged) return testing::AssertionFailure() << first << " comes behind " << before;
      if (!record.is_gap()) {
        const UplinkRecord sent = record_of(first);
        if (record.payload != sent.payload || record.name != sent.name) {
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
  int last = 0;                         // the last event appended,
  int kept = 0;                         // and the last one for which that was not refused
  std::vector<uint64_t> given_numbers;  // the spool's
  std::set<int> acknowledged;
  bool was_damaged = false;  // then records behind the position may come twice
};

TEST_F(UplinkSpool, KeepsRecordsAcrossRestarts) {
  append(3);
  UplinkRecord gap;
  gap.id = "R-4";
  gap.last_id = "R-6";
  gap.count = 0;
  EXPECT_NE(spool->append(gap), 0U);
  last = 6;
  append(1);
  EXPECT_EQ(content(), "1 2 3 4-6(0) 7");
  EXPECT_TRUE(sync());
  const int64_t now = time(nullptr);
  EXPECT_NEAR(static_cast<double>(spool->state().oldest_s), static_cast<double>(now), 5);
  append(1);
  restart();
  EXPECT_EQ(content(), "1 2 3 4-6(0) 7");
  EXPECT_EQ(spool->position(), "R-7");
  for (const char* path : {"", "/0000000000000001.seg"}) {
    struct stat status {};
    ASSERT_EQ(stat((folder + path).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, *path == 0 ? 0700U : 0600U);
  }
  // A second one may not use the folder.
  Spool other(folder, kLimit, Full::drop_oldest);
  EXPECT_EQ(other.state().error, "another process uses it");
  EXPECT_TRUE(spool->sync("R-7"));
}

// What is acknowledged before it is written is never written; a segment goes when all before it is acknowledged too.
TEST_F(UplinkSpool, ForgetsWhatIsAcknowledged) {
  EXPECT_EQ(spool->sync_due(), 0);
  append(2);
  EXPECT_NEAR(static_cast<double>(spool->sync_due()), static_cast<double>(steady_ms() + 1000), 200);
  for (uint64_t number = 0; spool->state().records > 0;) {
    ASSERT_NE(spool->read(number), nullptr);
    spool->acknowledge(number);
  }
  EXPECT_EQ(spool->sync_due(), 0);
  EXPECT_TRUE(files().empty());
  EXPECT_EQ(spool->state().written, 0U);

  std::vector<uint64_t> numbers;
  for (int i = 0; i < 60; ++i) {
    numbers.push_back(spool->append(record_of(++last)));
    if (i % 20 == 19) sync();
  }
  EXPECT_EQ(spool->sync_due(), 0);
  const size_t segments = files().size();
  EXPECT_GT(segments, 2U);
  for (int i = 59; i > 0; --i) spool->acknowledge(numbers[static_cast<size_t>(i)]);
  EXPECT_EQ(content(), "3");
  EXPECT_EQ(files().size(), segments);
  EXPECT_GT(spool->sync_due(), steady_ms() + 50000);
  EXPECT_TRUE(sync());
  restart();
  EXPECT_NE(content(), "");
  for (const uint64_t number : numbers) spool->acknowledge(number + 1);
  append(1);
  EXPECT_TRUE(sync());
  spool->acknowledge(0);
  spool->acknowledge(UINT64_MAX);
}

TEST_F(UplinkSpool, DropsTheOldestOrTheNewestWhenFull) {
  append(300);
  EXPECT_TRUE(sync());
  EXPECT_LE(spool->state().bytes, kLimit);
  EXPECT_EQ(content().substr(0, 2), "1-");
  EXPECT_NE(content().find(" 300"), std::string::npos);
  EXPECT_TRUE(holds(300));
  const uint64_t dropped = spool->state().dropped;
  EXPECT_EQ(content().find("(" + std::to_string(dropped) + ")"), content().find('('));
  const std::string before = content();
  restart();
  EXPECT_EQ(content(), before);

  fs::remove_all(folder);
  last = 0;
  open(Full::drop_newest);
  append(200);
  EXPECT_FALSE(sync());  // there is no room for the gap
  EXPECT_EQ(content().substr(0, 4), "1 2 ");
  EXPECT_LT(kept, 199);
  EXPECT_LT(event_of(spool->position()), 199);  // an uplink that starts again asks for what was refused
  EXPECT_TRUE(holds(event_of(spool->position())));
  for (uint64_t number = 0; spool->state().records > 2 && spool->read(number) != nullptr;) spool->acknowledge(number);
  append(1);
  EXPECT_EQ(content().substr(content().find(' ', content().find("-200("))), " 201");
  EXPECT_TRUE(sync());
  restart(Full::drop_newest);
  EXPECT_NE(content().find("-200("), std::string::npos);
}

// Rows: what makes the folder refuse records, what mends it, and the reason that is said.
TEST_F(UplinkSpool, GoesOnInMemory) {
  const auto limit_files = [](rlim_t size) {
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = size;
    setrlimit(RLIMIT_FSIZE, &limit);
  };
  struct Row {
    const char* name;
    std::function<void()> harm, mend;
    const char* reason;
  };
  const Row rows[] = {
      {"too large", [&] { limit_files(300); }, [&] { limit_files(RLIM_INFINITY); }, "File too large"},
      {"a file in its place", [&] { fs::remove_all(folder), std::ofstream(folder).flush(); },
       [&] { fs::remove(folder); }, "Not a directory"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    spool.reset();
    fs::remove_all(root + "/var");
    standin::reset();
    last = kept = 0;
    given_numbers.clear();
    open(Full::drop_oldest, size_t{4096} * 1024);
    append(3);
    EXPECT_TRUE(sync());
    row.harm();
    append(4);
    EXPECT_FALSE(sync());
    EXPECT_TRUE(spool->state().in_memory);
    EXPECT_EQ(spool->state().error, row.reason);
    EXPECT_GT(spool->sync_due(), steady_ms() + 3000);
    EXPECT_TRUE(holds(7));
    EXPECT_TRUE(fs::is_regular_file(folder) || fs::file_size(files().front()) < 300);
    append(20000);  // more than 1 MiB
    EXPECT_TRUE(holds(last));
    EXPECT_GT(spool->state().dropped, 0U);
    std::string end_of_gap;
    uint64_t number = 0;
    for (; const UplinkRecord* const record = spool->read(number); ++number) {
      if (record->is_gap()) end_of_gap = record->last_id;
    }
    spool->acknowledge(given_numbers.at(static_cast<size_t>(event_of(end_of_gap) - 1)));  // it was on its way
    EXPECT_TRUE(holds(last));
    EXPECT_FALSE(sync());  // not yet again
    row.mend();
    g_skipped_ms += 6000;
    EXPECT_TRUE(sync());
    EXPECT_FALSE(spool->state().in_memory);
    EXPECT_TRUE(holds(last));
    restart();
    EXPECT_TRUE(holds(last));
    EXPECT_EQ(standin::log_lines_with("does not take records").size(), 1U);
    EXPECT_EQ(standin::log_lines_with("takes records again").size(), 1U);
  }
}

// A folder that is removed takes with it what it held, and the spool says so.
TEST_F(UplinkSpool, DeclaresWhatIsRemoved) {
  for (int i = 0; i < 8; ++i) append(10), sync();
  fs::remove(files()[1]);
  was_damaged = true;
  restart();
  EXPECT_TRUE(holds(80));
  EXPECT_NE(content().find("(0)"), std::string::npos);
  append(1);
  EXPECT_TRUE(sync());
  fs::remove_all(folder);
  append(1);
  EXPECT_TRUE(sync());
  EXPECT_FALSE(spool->state().in_memory);
  EXPECT_EQ(content().substr(content().rfind(' ')), " 82");
  EXPECT_TRUE(holds(82));
  restart();
  EXPECT_TRUE(holds(82));
  // A folder that another one takes the place of, e.g. a disk that is mounted late: what that one holds comes first.
  fs::rename(folder, root + "/late");
  append(1);
  EXPECT_TRUE(sync());
  EXPECT_EQ(content(), "1-82(0) 83");
  fs::remove_all(folder);
  fs::rename(root + "/late", folder);
  append(1);
  EXPECT_TRUE(sync());
  EXPECT_TRUE(holds(84));
  EXPECT_EQ(content().substr(content().find(" 82")), " 82 1-83(0) 84");
  restart();
  EXPECT_EQ(content().substr(content().find(" 82")), " 82 1-83(0) 84");
}

// Files that the spool has not written stay, whatever their names.
TEST_F(UplinkSpool, LeavesStrangersFilesAlone) {
  append(3);
  EXPECT_TRUE(sync());
  spool.reset();
  for (const char* name : {"notes", "0000000000000002.seg", "000000000000000G.seg"}) {
    std::ofstream(folder + "/" + name) << "zvspool3 and more";
  }
  fs::create_symlink("/etc/passwd", folder + "/0000000000000003.seg");
  fs::create_directory(folder + "/0000000000000004.seg");
  open();
  append(300);
  EXPECT_TRUE(sync());
  EXPECT_TRUE(holds(300));
  EXPECT_EQ(standin::log_lines_with("alone, which is not a segment").size(), 3U);
  for (const char* name : {"notes", "0000000000000002.seg", "0000000000000003.seg", "0000000000000004.seg"}) {
    EXPECT_TRUE(fs::exists(fs::symlink_status(folder + "/" + name))) << name;
  }
}

// Each file cut at each byte, each byte changed.
TEST_F(UplinkSpool, BearsEachCutAndEachFlip) {
  append(20);
  EXPECT_TRUE(sync());
  append(8);
  EXPECT_TRUE(sync());
  spool.reset();
  fs::copy(folder, root + "/whole");
  was_damaged = true;
  for (const auto& entry : fs::directory_iterator(root + "/whole")) {
    std::string bytes(fs::file_size(entry), '\0');
    std::ifstream(entry.path(), std::ios::binary).read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    for (size_t at = 0; at < 2 * bytes.size(); ++at) {
      const bool is_cut = at % 2 == 0;
      SCOPED_TRACE(std::string(is_cut ? "cut " : "flipped ") + std::to_string(at / 2) + " of " + entry.path().string());
      std::string damaged = bytes.substr(0, is_cut ? at / 2 : bytes.size());
      if (!is_cut) damaged[at / 2] = static_cast<char>(damaged[at / 2] ^ (1 << (at / 2 % 8)));
      spool.reset();
      fs::remove_all(folder);
      fs::copy(root + "/whole", folder);
      std::ofstream(fs::path(folder) / entry.path().filename(), std::ios::binary) << damaged;
      open();
      ASSERT_TRUE(holds(event_of(spool->position())));
    }
  }
}

// Seeded: appends, acknowledgements, syncs, restarts, damage, against the invariant.
TEST_F(UplinkSpool, LosesNothingThatItDoesNotDeclare) {
  for (unsigned seed = 1; seed <= kSeeds; ++seed) {
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
        const UplinkRecord* record = nullptr;
        for (uint64_t number = 0; flight.size() < 20 && (record = spool->read(number)) != nullptr; ++number) {
          flight.emplace_back(number, *record);
        }
        std::shuffle(flight.begin(), flight.end(), random);
        flight.resize(random() % (flight.size() + 1));
        for (const auto& [number, sent] : flight) {
          spool->acknowledge(number);
          const int end = event_of(sent.is_gap() ? sent.last_id : sent.id);
          for (int event = event_of(sent.id); event <= end; ++event) acknowledged.insert(event);
        }
      } else if (what < 95) {
        EXPECT_TRUE(sync() || full == Full::drop_newest);
      } else {
        spool.reset();
        const std::vector<std::string> found = files();
        if (!found.empty() && what < 98) {
          was_damaged = true;
          const bool is_cut = random() % 2 == 0;  // as by a loss of power: the last one
          const std::string& victim = is_cut ? found.back() : found[random() % found.size()];
          if (is_cut || fs::file_size(victim) == 0) {
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
