// The payload of a command. Input: one byte (odd: the rest is put into "f" of a good command), then the bytes.
#include "uplink/command_payload.h"

#include <sanitizer/allocator_interface.h>
#include <cmath>

#include "device/event_line.h"
#include "tests/fuzz/fuzz.h"
#include "util/text.h"

void fuzz(size_t choice, std::string input) {
  if (choice % 2 == 1) input = R"({"id":"q1","f":{)" + input + "}}";
  if (choice >= 250) input.insert(input.size() / 2, kCommandPayloadMax - 100 + choice, choice % 4 < 2 ? '[' : ' ');
  const size_t before = __sanitizer_get_current_allocated_bytes();
  {
    const Exact exact(input);
    const CommandPayload command = parse_command(exact.view());
    HOLDS(command.id.empty() || is_command_id(command.id));
    HOLDS(command.refusal.size() <= 300);
    HOLDS(command.info.empty() != command.refusal.empty());
    if (command.refusal.empty()) {
      HOLDS(input.size() <= kCommandPayloadMax && !command.id.empty());
      HOLDS(!command.until || std::isfinite(*command.until));
      // The line is one event of that name, whose first item is the id and whose other items are fields.
      const Exact line("20 unlock " + command.info);
      EventLine event{};
      HOLDS(parse_event_line(line.view(), event) == nullptr && event.info == command.info);
      std::string_view rest = event.info;
      HOLDS(take_item(rest, '&') == "cmd_id=" + command.id);
      while (!rest.empty()) {
        std::string_view value = take_item(rest, '&');
        HOLDS(value.find('=') != std::string_view::npos);
        const std::string_view name = take_item(value, '=');
        HOLDS(name != "cmd_id" && check_event_field(name, value) == nullptr);
      }
    }
  }
  HOLDS(__sanitizer_get_current_allocated_bytes() == before);
}
