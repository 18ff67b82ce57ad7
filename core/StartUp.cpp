#include "core/StartUp.h"

int StartUp::run(int, char**) { return 1; }
