#include "main/Daemon.h"

int main(int argc, char** argv)
{
    return orv::tsd::tsdMain(argc, argv);
}
