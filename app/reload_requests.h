// Requests of other threads for a reload, which the main thread carries out between two looks at its signals.
#pragma once

#include <functional>
#include <string>

struct ReloadVerdict {
  bool done;
  std::string text;  // what went wrong: a line, then those of a traceback
};

// Has the daemon reload its scripts and waits for the verdict; `with_trial`: in a forked copy first, and a fault there
// leaves the daemon as it was. Without a trial, a fault ends the daemon. Asks `given_up` now and then, and returns
// early when that is true; the reload may still be done. Any thread but the main one.
ReloadVerdict ask_for_reload(bool with_trial, const std::function<bool()>& given_up);

// What the main thread does with them. Requests are kept from the construction of the one object on, and answered as
// refused from its destruction on.
class ReloadRequests {
 public:
  ReloadRequests();
  ReloadRequests(const ReloadRequests&) = delete;
  ReloadRequests& operator=(const ReloadRequests&) = delete;
  ~ReloadRequests();

  static bool any();

  // Takes the oldest request and all others of its kind. Returns whether they want a trial.
  static bool take();

  // Gives those that were taken their verdict.
  static void answer(const ReloadVerdict& verdict);
};
