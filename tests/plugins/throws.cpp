// A plug-in that throws what only it knows: in init (IN_INIT), or at the end.
#include <zelvind/plugin.h>

#include <exception>

namespace {

class OwnException : public std::exception {
 public:
  const char* what() const noexcept override { return "an exception of the plug-in's own"; }
};

}  // namespace

int esource_init() {
#ifdef IN_INIT
  throw OwnException();
#else
  return 0;
#endif
}

void esource_prepare_cleanup() {
  throw OwnException();
}

void esource_cleanup() {
  elog(2, "throws: cleanup");
#ifndef IN_INIT
  throw 5;
#endif
}
