#include "console.h"

#include <cstdio>
#include <cstring>

bool kiv::read_line(char (&line)[console_line_size])
{
    std::fflush(stdout); // the prompt
    if (std::fgets(line, sizeof line, stdin) == nullptr) {
        return false;
    }
    if (char *const end = std::strchr(line, '\n'); end != nullptr) {
        *end = '\0';
        return true;
    }
    int next = 0;
    do {
        next = std::getchar();
    } while (next != '\n' && next != EOF);
    return true;
}
