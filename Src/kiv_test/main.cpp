// kivtest.exe. The tool itself is in the library; this is all that makes it a program.

#include "standard_streams.h"
#include "zol/kiv_test.h"

int main(int argc, char **argv)
{
    kiv::keep_standard_descriptors(); // or the log would go to a pipe of the library
    return kiv_test_main(argc, argv);
}
