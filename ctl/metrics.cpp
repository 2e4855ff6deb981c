#include "ctl/metrics.h"

#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cinttypes>
#include <cstdlib>

#include "ctl/failure.h"
#include "ctl/inspect/answers.h"
#include "ctl/inspect/uplink.h"
#include "ctl/output.h"
#include "util/descriptor.h"
#include "util/quiet_write.h"
#include "util/text.h"

namespace {

enum class Shape {
  counter,
  gauge,
  histogram,  // `key` has the sum of the durations
  one_of,     // a gauge for each of `values`: 1 for the one that `key` has; a single one goes without a label
  info,       // a gauge that is 1, with the keys named in `values` as labels
};

// The lines of a kind that have a name become samples with a label of the kind's name. A key that ends in "_us" becomes
// seconds.
struct Metric {
  const char* name = nullptr;  // behind "zelvind_"
  Shape shape = Shape::gauge;
  const char* kind = nullptr;  // of answer lines
  const char* key = nullptr;
  const char* help = nullptr;
  const char* values[7] = {};  // up to the first that is null
};

constexpr Metric kMetrics[] = {
    {"build_info", Shape::info, "daemon", "version", "What runs: always 1.", {"version", "device", "lua"}},
    {"start_time_seconds", Shape::gauge, "daemon", "started", "When the daemon started, since 1970."},
    {"state",
     Shape::one_of,
     "daemon",
     "state",
     "1 for the state that the daemon is in.",
     {"starting", "loading", "ready", "reloading", "stopping", "ended"}},
    {"resident_memory_bytes", Shape::gauge, "daemon", "rss", "Memory in use by the daemon."},
    {"log_level", Shape::gauge, "daemon", "log_level", "Level up to which lines are logged."},
    {"loop_silence_seconds", Shape::gauge, "loop", "alive_us", "Time since the event loop last looked for an event."},
    {"queue_events", Shape::gauge, "queue", "waiting", "Events that wait to be handled."},
    {"queue_highest_events", Shape::gauge, "queue", "highest", "Most events that ever waited."},
    {"queue_oldest_age_seconds", Shape::gauge, "queue", "oldest_us", "Age of the first event that waits."},
    {"event_socket_owned", Shape::one_of, "queue", "socket", "Whether other processes can post events.", {"owned"}},
    {"event_wait_seconds", Shape::histogram, "wait", "sum_us", "From an event's arrival to its handling."},
    {"source_events_total", Shape::counter, "source", "events", "Events that came in, by where they came from."},
    {"source_refused_total", Shape::counter, "source", "refused", "Events and lines that were refused."},
    {"source_connections", Shape::gauge, "source", "connections", "Connections of other processes that post."},
    {"source_evicted_total", Shape::counter, "source", "evicted", "Connections closed because others waited."},
    {"events_total", Shape::counter, "event", "events", "Events taken from the queue, by type name."},
    {"events_unknown_total", Shape::counter, "event", "unknown", "Events of a type without handlers."},
    {"event_errors_total", Shape::counter, "event", "errors", "Errors of handlers, by the event's type name."},
    {"event_run_seconds", Shape::histogram, "event", "run_sum_us", "All handlers of an event together."},
    {"event_run_max_seconds", Shape::gauge, "event", "run_max_us", "Longest run of all handlers of an event."},
    {"script_errors_total", Shape::counter, "tag", "errors", "Errors of handlers, timers and coroutines."},
    {"script_run_seconds", Shape::histogram, "tag", "run_sum_us", "A call of a handler, timer or coroutine."},
    {"script_run_max_seconds", Shape::gauge, "tag", "run_max_us", "Longest call of a handler, timer or coroutine."},
    {"last_error_timestamp_seconds", Shape::gauge, "error", "time", "When a script last failed, since 1970."},
    {"timers", Shape::gauge, "timers", "now", "Timers that are set."},
    {"timer_lateness_seconds", Shape::histogram, "timers", "lateness_sum_us", "How late timers ran."},
    {"coroutines", Shape::gauge, "coroutines", "now", "Coroutines that have not ended."},
    {"coroutine_lateness_seconds", Shape::histogram, "coroutines", "lateness_sum_us", "How late coroutines ran."},
    {"lua_memory_bytes", Shape::gauge, "lua", "bytes", "Memory of the Lua state."},
    {"lua_memory_limit_bytes", Shape::gauge, "lua", "limit", "What script_memory allows; 0: no limit."},
    {"lua_collection_seconds", Shape::histogram, "lua", "collect_sum_us", "Full garbage collections."},
    {"reloads_tried_total", Shape::counter, "reload", "tried", "Reloads that were tried in a forked copy."},
    {"reloads_failed_total", Shape::counter, "reload", "failed", "Reloads that failed."},
    {"reloads_done_total", Shape::counter, "reload", "done", "Reloads that were done."},
    {"last_reload_failed", Shape::one_of, "reload", "last_result", "Whether the last reload failed.", {"failed"}},
    {"listener_clients", Shape::gauge, "listener", "clients", "Connected clients."},
    {"listener_subscribed_clients", Shape::gauge, "listener", "subscribed", "Clients that have subscribed."},
    {"listener_owing_clients", Shape::gauge, "listener", "owing",
     "Clients that do not read as fast as they are sent to."},
    {"listener_accepted_total", Shape::counter, "listener", "accepted", "Clients' connections taken."},
    {"listener_refused_total", Shape::counter, "listener", "refused", "Connections refused: all places were taken."},
    {"listener_denied_total", Shape::counter, "listener", "denied",
     "Connections closed because their address is not in listener_allow."},
    {"listener_given_up_total", Shape::counter, "listener", "given_up", "Connections closed to make room for others."},
    {"listener_deliveries_total", Shape::counter, "listener", "deliveries", "Events sent, counted once a client."},
    {"listener_sent_bytes_total", Shape::counter, "listener", "bytes", "Bytes sent to clients."},
    {"listener_sends_total", Shape::counter, "listener", "sends", "System calls that sent to clients."},
    {"listener_gathered_sends_total", Shape::counter, "listener", "gathered",
     "System calls that sent several events at once."},
    {"listener_skipped_events_total", Shape::counter, "listener", "skips", "Events that slow clients have lost."},
    {"listener_waits_total", Shape::counter, "listener", "waits", "Waits of the event loop for slow clients."},
    {"listener_wait_seconds_total", Shape::counter, "listener", "waited_us",
     "Time that the event loop has waited for slow clients."},
    {"listener_memory_bytes", Shape::gauge, "listener", "memory", "Memory held for clients."},
    {"listener_memory_limit_bytes", Shape::gauge, "listener", "memory_limit", "What listener_memory allows."},
    {"log_lines_total", Shape::counter, "log", "written", "Lines logged."},
    {"log_lines_lost_total", Shape::counter, "log", "lost", "Lines that no log target took."},
    {"log_lines_repeated_total", Shape::counter, "log", "repeated", "Lines left out and summed up."},
    {"control_clients", Shape::gauge, "control", "clients", "Connections to the control socket."},
    {"control_followers", Shape::gauge, "control", "followers",
     "Connections to the control socket that follow events."},
    {"control_requests_total", Shape::counter, "control", "requests", "Requests at the control socket."},
    {"answer_cut_bytes", Shape::gauge, "cut", "bytes", "Left out of these metrics: the answer was too long."},
};

// Of the uplink's own answer.
constexpr Metric kUplinkMetrics[] = {
    {"uplink_build_info", Shape::info, "uplink", "version", "What runs: always 1.", {"version", "device"}},
    {"uplink_resident_memory_bytes", Shape::gauge, "uplink", "rss", "Memory in use by the uplink."},
    {"uplink_connected", Shape::one_of, "broker", "state", "Whether the broker is there.", {"up"}},
    {"uplink_connects_total", Shape::counter, "broker", "connects", "Connections to the broker."},
    {"uplink_failures_total", Shape::counter, "broker", "failures", "Connections that failed or were lost."},
    {"uplink_in_flight", Shape::gauge, "broker", "in_flight", "Messages that the broker has not confirmed."},
    {"uplink_following", Shape::one_of, "daemon", "state", "Whether the daemon is there.", {"following"}},
    {"uplink_events_total", Shape::counter, "daemon", "events", "Events read that `up` names."},
    {"uplink_lost_events_total", Shape::counter, "daemon", "lost", "Events overwritten before they were read."},
    {"uplink_published_total", Shape::counter, "out", "published", "Messages given to the broker."},
    {"uplink_confirmed_total", Shape::counter, "out", "confirmed", "Messages that the broker has confirmed."},
    {"uplink_repeated_total", Shape::counter, "out", "repeated", "Messages sent again after a lost connection."},
    {"uplink_refused_total", Shape::counter, "out", "refused", "Messages that the broker has refused for good."},
    {"uplink_gaps_total", Shape::counter, "out", "gaps", "Gaps declared to the broker."},
    {"uplink_published_bytes_total", Shape::counter, "out", "bytes", "Bytes of all messages."},
    {"uplink_waiting", Shape::gauge, "out", "waiting", "Records in memory that are not confirmed."},
    {"uplink_spool_records", Shape::gauge, "spool", "records", "Records in the spool."},
    {"uplink_spool_bytes", Shape::gauge, "spool", "bytes", "Bytes of the spool's files."},
    {"uplink_spool_limit_bytes", Shape::gauge, "spool", "limit", "What spool_size allows."},
    {"uplink_spool_oldest_age_seconds", Shape::gauge, "spool", "oldest_s", "Age of the oldest record."},
    {"uplink_spool_in_memory", Shape::one_of, "spool", "place", "Whether the folder takes nothing.", {"memory"}},
    {"uplink_dropped_events_total", Shape::counter, "spool", "dropped", "Events dropped: the spool was full."},
    {"uplink_spool_written_bytes_total", Shape::counter, "spool", "written", "Bytes written to the spool's files."},
    {"uplink_spool_syncs_total", Shape::counter, "spool", "syncs", "Syncs of the spool."},
    {"uplink_commands_taken_total", Shape::counter, "commands", "taken", "Commands handed to the daemon."},
    {"uplink_commands_refused_total", Shape::counter, "commands", "refused", "Commands refused."},
    {"uplink_commands_failed_total", Shape::counter, "commands", "failed", "Commands that the daemon did not take."},
    {"uplink_commands_repeated_total", Shape::counter, "commands", "repeated", "Commands answered from memory."},
};

bool ends_with(std::string_view text, std::string_view end) {
  return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

std::string seconds(uint64_t microseconds) {
  return sstr("%" PRIu64 ".%06" PRIu64, microseconds / 1000000, microseconds % 1000000);
}

// The value as the daemon writes it, "%XX" included: that is UTF-8 without control characters, whatever bytes strangers
// use in names, and different names stay different.
std::string label(const std::string& name, const AnswerLine& line, const std::string& key) {
  const auto found = line.values().find(key);
  std::string text = name + "=\"";
  if (found != line.values().end()) {
    for (const char c : found->second) {
      if (c == '\\' || c == '"') text += '\\';
      text += c;
    }
  }
  return text + "\"";
}

std::string sample(const std::string& name, const std::string& labels, const std::string& value) {
  return name + (labels.empty() ? "" : "{" + labels + "}") + " " + value + "\n";
}

std::string bucket(const std::string& name, const std::string& labels, const std::string& bound, uint64_t count) {
  const std::string le = "le=\"" + bound + "\"";
  return sample(name + "_bucket", labels.empty() ? le : labels + "," + le, std::to_string(count));
}

std::string histogram(const std::string& name, const std::string& labels, const AnswerLine& line, const char* sum) {
  const std::vector<uint64_t> buckets = line.counts("buckets");
  std::string text;
  uint64_t count = 0;
  for (size_t i = 0; i < buckets.size(); ++i) {
    count += buckets[i];
    const std::string bound = i + 1 < buckets.size() ? seconds(uint64_t{2} << i) : "+Inf";
    text += bucket(name, labels, bound, count);
  }
  return text + sample(name + "_sum", labels, seconds(line.count(sum))) +
         sample(name + "_count", labels, std::to_string(count));
}

std::string one_of(const std::string& name, const Metric& metric, const AnswerLine& line) {
  const bool is_single = metric.values[1] == nullptr;
  std::string text;
  for (const char* const* value = metric.values; *value != nullptr; ++value) {
    const std::string labels = is_single ? "" : sstr("%s=\"%s\"", metric.key, *value);
    text += sample(name, labels, line.text(metric.key) == *value ? "1" : "0");
  }
  return text;
}

std::string info(const std::string& name, const Metric& metric, const AnswerLine& line) {
  std::string labels;
  for (const char* const* key = metric.values; *key != nullptr; ++key) {
    labels += (labels.empty() ? "" : ",") + label(*key, line, *key);
  }
  return sample(name, labels, "1");
}

std::string samples(const std::string& name, const Metric& metric, const AnswerLine& line) {
  if (!line.has(metric.key)) return "";
  const std::string labels = line.has("name") ? label(metric.kind, line, "name") : "";
  switch (metric.shape) {
    case Shape::histogram:
      return histogram(name, labels, line, metric.key);
    case Shape::one_of:
      return one_of(name, metric, line);
    case Shape::info:
      return info(name, metric, line);
    default:
      break;
  }
  if (ends_with(metric.key, "_us")) return sample(name, labels, seconds(line.count(metric.key)));
  return line.number(metric.key, -1) < 0 ? "" : sample(name, labels, line.text(metric.key));
}

const char* type_of(Shape shape) {
  return shape == Shape::counter ? "counter" : shape == Shape::histogram ? "histogram" : "gauge";
}

std::string headed(const std::string& name, const char* help, const char* type, const std::string& the_samples) {
  return "# HELP " + name + " " + help + "\n# TYPE " + name + " " + type + "\n" + the_samples;
}

std::string up(bool is_up) {
  return headed("zelvind_up", "Whether the daemon answers at its control socket.", "gauge",
                sample("zelvind_up", "", is_up ? "1" : "0"));
}

// A rename would replace a device, a FIFO or a link too, whatever others use it for.
void refuse_other_than_file(const std::string& path) {
  struct stat status {};
  if (lstat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) fail(path + " is not a regular file");
}

void replace(const std::string& path, const std::string& text) {
  refuse_other_than_file(path);
  std::string temporary = path + ".XXXXXX";
  const Descriptor file(mkostemp(temporary.data(), O_CLOEXEC));
  if (file.get() >= 0 && write_fully(file.get(), text.data(), text.size()) && fchmod(file.get(), 0644) == 0 &&
      rename(temporary.c_str(), path.c_str()) == 0) {
    return;
  }
  const int error = errno;
  if (file.get() >= 0) unlink(temporary.c_str());
  fail("failed to write " + path + ": " + error_text(error));
}

void write(const std::string& text, const std::string& textfile, FILE* out) {
  textfile.empty() ? write_now(out, text) : replace(textfile, text);
}

template <size_t size>
std::string text_of(const Metric (&metrics)[size], const std::vector<AnswerLine>& answer) {
  std::string text;
  for (const Metric& metric : metrics) {
    const std::string name = std::string("zelvind_") + metric.name;
    std::string all;
    for (const AnswerLine* line : lines_of(answer, metric.kind)) all += samples(name, metric, *line);
    if (!all.empty()) text += headed(name, metric.help, type_of(metric.shape), all);
  }
  return text;
}

// Nothing where no uplink answers: most devices have none.
std::string uplink_metrics(const std::string& root) try {
  constexpr int kLimitMs = 1000;
  return text_of(kUplinkMetrics, ask_uplink(root, kLimitMs));
} catch (const Failure&) {
  return "";
}

}  // namespace

std::string metrics_text(const std::vector<AnswerLine>& stats) {
  return up(true) + text_of(kMetrics, stats);
}

void print_metrics(const std::string& root, const std::string& textfile, FILE* out) {
  const std::string uplink = uplink_metrics(root);
  std::string text;
  try {
    text = metrics_text(ControlClient(root).ask("stats")) + uplink;
  } catch (const Refused&) {  // it is up, and all places are taken: neither is to be told by `up`
    throw;
  } catch (const Failure&) {
    write(up(false) + uplink, textfile, out);
    throw;
  }
  write(text, textfile, out);
}
