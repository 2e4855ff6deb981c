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

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::string name(input.substr(0, input.find('\0')));
  const std::string_view rest = input.substr(std::min(size, name.size() + 1));
  const std::string type_string(rest.substr(0, rest.find('\0')));
  const ExactText exact_string(type_string);
  const ExactText exact_name(name);
  HOLDS(match_type_string(exact_string.data.get(), exact_name.data.get()) == reference(type_string, name));
  return 0;
}
