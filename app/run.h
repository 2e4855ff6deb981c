// Run control: the daemon's life between the signal handler's installation and its last log line.
#pragma once

// Sets up the log, builds the managers, reads the configuration, starts everything in its fixed order, idles while it
// watches the signal flags, and stops everything. Returns when the daemon is to end, also after a start step or a
// reload that failed (logged). Throws except_conf when the configuration cannot be opened. Main thread, once.
void run();
