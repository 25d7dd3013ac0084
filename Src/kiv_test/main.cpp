// kivtest.exe. The tool itself is in the library; this is all that makes it a program.

#include "zol/kiv_test.h"

int main(int argc, char **argv)
{
    return kiv_test_main(argc, argv);
}
