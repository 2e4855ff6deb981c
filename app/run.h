// Run control: the daemon's life from the installation of the signal handler to the last log line.
#pragma once

// Sets up the log, builds the managers, reads the settings, starts everything in a fixed order, sleeps until signals
// ask for a reload or the stop, and stops everything. Returns when the daemon is to end, also when a start step or a
// reload has failed (logged). Throws except_conf when the settings file cannot be opened. Main thread, once.
void run();
