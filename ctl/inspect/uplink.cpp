#include "ctl/inspect/uplink.h"

#include <unistd.h>
#include <cerrno>

#include "ctl/failure.h"
#include "ctl/human_text.h"
#include "ctl/inspect/answer_json.h"
#include "ctl/inspect/screen.h"
#include "ctl/output.h"
#include "uplink/uplink_status.h"

namespace {

constexpr size_t kLabelWidth = 12;
constexpr size_t kTextWidth = 160;
constexpr uint64_t kLateS = 60;  // from where on the age of an event deserves a note while the broker is there

std::string seconds_text(const AnswerLine& line, const char* key) {
  return duration_text(line.count(key) * 1000000);
}

std::string value(const AnswerLine& line, const char* key) {
  return shown(line.text(key), kTextWidth);
}

// "; WORDS: ERROR", or nothing when there was none.
std::string with_error(const AnswerLine& line, const char* words) {
  return line.has("error") ? std::string("; ") + words + ": " + value(line, "error") : "";
}

std::string address(const AnswerLine& broker) {
  return value(broker, "host") + ":" + value(broker, "port");
}

std::string row(const char* label, const std::string& line) {
  return padded(label, kLabelWidth) + line + "\n";
}

std::string trouble_of(const AnswerLine& broker, const AnswerLine& daemon) {
  if (broker.text("state") != "up") {
    const std::string next =
        broker.has("next_try_s") ? "the next try is in " + seconds_text(broker, "next_try_s") : "it tries right now";
    return "the broker " + address(broker) + " is away for " + seconds_text(broker, "since_s") +
           with_error(broker, "the last error") + "; " + next;
  }
  if (daemon.text("state") != "following")
    return "the daemon is away for " + seconds_text(daemon, "since_s") + with_error(daemon, "the last error");
  return "";
}

std::vector<std::string> notes_of(const std::vector<AnswerLine>& answer) {
  std::vector<std::string> notes;
  const AnswerLine& spool = line_of(answer, "spool");
  const uint64_t oldest_s = spool.count("oldest_s");
  if (spool.text("place") == "memory")
    notes.push_back("the spool is in memory, and is lost with the program" + with_error(spool, "its folder"));
  if (line_of(answer, "broker").text("state") == "up" && oldest_s > kLateS) {
    notes.push_back("the oldest event waits for " + duration_text(oldest_s * 1000000) +
                    " although the broker is there: it confirms slowly, or `rate` is too low");
  }
  const uint64_t dropped = spool.count("dropped");
  if (dropped > 0)
    notes.push_back(number_of(dropped, "event was", "events were") + " dropped: more came than `spool_size` holds");
  const uint64_t lost = line_of(answer, "daemon").count("lost");
  if (lost > 0) {
    notes.push_back(
        number_of(lost, "event was", "events were") +
        " overwritten in the daemon before the uplink read them: a larger `event_memory` of the daemon helps");
  }
  const uint64_t unwanted = line_of(answer, "broker").count("refused");
  if (unwanted > 0)
    notes.push_back(number_of(unwanted, "message was", "messages were") + " refused by the broker: the log says why");
  const AnswerLine& commands = line_of(answer, "commands");
  const uint64_t refused = commands.count("refused");
  if (refused > 0) {
    notes.push_back(number_of(refused, "command was", "commands were") +
                    " refused, the last one: " + value(commands, "refusal"));
  }
  const uint64_t failed = commands.count("failed");
  if (failed > 0)
    notes.push_back(number_of(failed, "command", "commands") + " came while the daemon was not there to take it in");
  return notes;
}

}  // namespace

std::vector<AnswerLine> ask_uplink(const std::string& root, int limit_ms) {
  const std::string path = root + kUplinkSocketPath;
  if (access(path.c_str(), F_OK) != 0 && errno == ENOENT) fail("it does not run: there is no " + path);
  return ControlClient(root, limit_ms, kUplinkSocketPath).ask("stats", limit_ms);
}

Diagnosis diagnose_uplink(const std::vector<AnswerLine>& answer) {
  return {trouble_of(line_of(answer, "broker"), line_of(answer, "daemon")), notes_of(answer)};
}

std::string uplink_screen(const std::vector<AnswerLine>& answer) {
  const AnswerLine& uplink = line_of(answer, "uplink");
  const AnswerLine& broker = line_of(answer, "broker");
  const AnswerLine& daemon = line_of(answer, "daemon");
  const AnswerLine& out = line_of(answer, "out");
  const AnswerLine& spool = line_of(answer, "spool");
  const AnswerLine& commands = line_of(answer, "commands");
  const std::string protocol =
      broker.has("protocol") ? broker.text("protocol") == "5" ? ", MQTT 5" : ", MQTT 3.1.1" : "";
  return row("uplink", "zelvind-uplink " + value(uplink, "version") + ", process " + value(uplink, "pid") +
                           ", device " + value(uplink, "device") + ", session " + value(uplink, "session") + ", for " +
                           seconds_text(uplink, "uptime_s") + ", " + size_text(uplink.count("rss")) + " of memory") +
         row("broker", address(broker) + (broker.count("tls") > 0 ? " with TLS, " : " without TLS, ") +
                           value(broker, "state") + " for " + seconds_text(broker, "since_s") + protocol + "; " +
                           number_of(broker.count("connects"), "connect") + ", " +
                           number_of(broker.count("failures"), "failure") + with_error(broker, "the last error")) +
         row("daemon", value(daemon, "state") + " for " + seconds_text(daemon, "since_s") +
                           (daemon.has("position") ? ", behind event " + value(daemon, "position") : "") + "; " +
                           number_of(daemon.count("events"), "event") + " read, " +
                           std::to_string(daemon.count("lost")) + " lost") +
         row("sent",
             number_of(out.count("published"), "message") + " published, " + std::to_string(out.count("confirmed")) +
                 " confirmed, " + std::to_string(broker.count("in_flight")) + " in flight, " +
                 std::to_string(out.count("repeated")) + " repeated, " + number_of(out.count("gaps"), "gap") +
                 " declared; " + rate_text(static_cast<double>(out.count("rate")) / 10) + "/s in the last 10 s") +
         row("spool",
             "in " + std::string(spool.text("place") == "disk" ? "its folder" : "memory") + ": " +
                 number_of(spool.count("records"), "record") + ", " + size_text(spool.count("bytes")) + " of " +
                 size_text(spool.count("limit")) +
                 (spool.has("oldest_s") ? ", the oldest from " + seconds_text(spool, "oldest_s") + " ago" : "") + "; " +
                 std::to_string(spool.count("dropped")) + " events dropped") +
         row("commands", std::to_string(commands.count("taken")) + " taken, " +
                             std::to_string(commands.count("refused")) + " refused, " +
                             std::to_string(commands.count("failed")) + " failed, " +
                             std::to_string(commands.count("repeated")) + " answered from memory");
}

void print_uplink(const std::string& root, bool json, FILE* out) {
  std::vector<AnswerLine> answer;
  Diagnosis diagnosis;
  try {
    answer = ask_uplink(root);
    diagnosis = diagnose_uplink(answer);
  } catch (const Failure& failure) {
    diagnosis.trouble = std::string("the uplink does not answer: ") + failure.what();
  }
  if (json) {
    nlohmann::ordered_json object{
        {"healthy", diagnosis.trouble.empty()}, {"trouble", diagnosis.trouble}, {"notes", diagnosis.notes}};
    object.update(json_of(answer));
    write_now(out, object.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n");
  } else {
    write_now(out, verdict_lines(diagnosis) + (answer.empty() ? "" : uplink_screen(answer)));
  }
  if (!diagnosis.trouble.empty()) fail("");
}
