// Which events a client's type string asks for, against the rule read letter by letter. Input: the type name, a zero
// byte, the type string.
#include "listener/client_protocol.h"
#include "tests/fuzz/fuzz.h"

namespace {

int reference(const std::string& type_string, const std::string& name) {
  for (size_t at = 0; at + name.size() <= type_string.size(); ++at) {
    if (type_string.compare(at, name.size(), name) == 0) return at == 0 || type_string[at - 1] == ',' ? 1 : -1;
  }
  return -1;
}

}  // namespace

void fuzz(size_t, std::string input) {
  const std::string name = input.substr(0, input.find('\0'));
  const std::string rest = input.substr(std::min(input.size(), name.size() + 1));
  const std::string type_string = rest.substr(0, rest.find('\0'));
  HOLDS(match_type_string(ExactText(type_string).data.get(), ExactText(name).data.get()) ==
        reference(type_string, name));
}
