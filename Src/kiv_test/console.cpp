#include "console.h"

#include <cstdio>

bool kiv::read_line(char (&line)[console_line_size])
{
    std::fflush(stdout); // the prompt
    std::size_t length = 0;
    int next = 0;
    // The rest of a long line is read too, or it would be taken for the next command.
    while ((next = std::getchar()) != '\n' && next != EOF) {
        if (length < sizeof line - 1) {
            line[length++] = static_cast<char>(next);
        }
    }
    line[length] = '\0';
    return next != EOF || length > 0; // a last line may lack its line end
}
