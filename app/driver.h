#pragma once

namespace nmr::app {

// The whole run of one process: every process of the job calls this with the same
// arguments. Returns 0 after a complete run and -1 after any early end.
int runDriver(int argc, char** argv);

}  // namespace nmr::app
