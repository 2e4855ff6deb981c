// Finds the addresses of a host without making its caller wait: a name is looked up in a thread, because the system's
// resolver can hang for minutes. Nobody waits for that thread, the end of the program included.
#pragma once

#include <memory>
#include <string>
#include <vector>

// One thread only, but for what it does inside itself.
class NameLookup {
 public:
  struct Result {
    std::vector<std::string> addresses;  // numeric ones, at most 8, in the resolver's order
    std::string error;                   // why there are none
  };

  // Starts to look `host` up, which is always the same one. A look-up that still hangs is waited for instead: there is
  // never more than one thread. Returns what is wrong, or nothing.
  std::string start(const std::string& host);

  // Becomes readable when there is a result; -1 before the first start().
  int descriptor() const;

  // Takes the result; false while there is none.
  bool take(Result& out);

 private:
  struct Job;
  std::shared_ptr<Job> job;  // shared with the thread
};
