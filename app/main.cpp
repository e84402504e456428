#include "app/driver.h"

int main(int argc, char** argv) { return nmr::app::runDriver(argc, argv); }
