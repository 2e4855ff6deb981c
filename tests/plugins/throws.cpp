// A plug-in that throws what only it knows: in init (IN_INIT), and at the end.
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

void esource_cleanup() {
  throw 5;
}
