// curvana: the host program of the Curvana filter module.
#include "host/Cli.h"

int main(int argc, char** argv) {
    return Curvana::Host::runCli(argc, argv);
}
