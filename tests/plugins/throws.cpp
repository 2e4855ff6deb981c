// A plug-in that throws what only it knows: in init (IN_INIT), or at the end.
#include <zelvind/plugin.h>

#include <exception>

class OwnException : public std::exception {
  const char* what() const noexcept override { return "an exception of the plug-in's own"; }
};

int esource_init() {
#ifdef IN_INIT
  throw OwnException();
#endif
  return 0;
}

void esource_prepare_cleanup() {
  throw OwnException();
}

void esource_cleanup() {
  elog(2, "%s: cleanup", NAME);
#ifndef IN_INIT
  throw 5;
#endif
}
