// Prints the keys of the daemon's settings, one a line, for tests/documents.
#include <cstdio>

#include "device/settings.h"

int main() {
  for (const Setting* setting : settings::kAll) puts(setting->key);
}
