// StartUp: turns the executable into the running daemon: finds the home
// directory, loads the configuration maps, daemonises, decides the role and
// starts the worker threads in their fixed order.
#pragma once

class StartUp {
public:
    static int run(int argc, char** argv);
};
