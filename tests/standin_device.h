// A device made for tests, linked behind the headers of device/: events from a queue, log lines into a vector, and a
// store in which every number is 0 and no text is there unless it is set. Everything may be called from any thread.
#pragma once

#include <string>
#include <vector>

namespace standin {

// Forgets events, log lines and values of the store.
void reset();

// Sets a value of the store.
void set_number(const std::string& key, int value);
void set_text(const std::string& key, const std::string& value);

// Adds an event at the end of the queue.
void post(int type, const std::string& type_name, const std::string& info);

// Lets the next `count` calls of event_post find the queue full.
void refuse_posts(int count);

// The lines logged since reset, one string a call of elog or elogr, as "<level> text".
std::vector<std::string> log_lines();

// Those of them that hold `part`.
std::vector<std::string> log_lines_with(const std::string& part);

// Waits until a line that holds `part` has been logged `count` times; false after 10 s.
bool wait_for_line(const std::string& part, size_t count = 1);

// Calls of event_arrange since reset.
int arrange_calls();

// Waits until the event loop waits for an event.
void wait_until_idle();

// Calls of event_dequeue since reset that waited for the whole of 1000 ms.
int full_waits();

}  // namespace standin
