// The kestrava daemon's entry point.
#include "core/StartUp.h"

int main(int argc, char** argv) { return StartUp::run(argc, argv); }
