// What zepcall reads besides its command line: files, standard input and passwords.
#pragma once

#include <stdexcept>
#include <string>

namespace zepcall {

// A file, standard input or the terminal could not be read.
class LocalError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

std::string readFile(const std::string& path);  // throws LocalError
std::string readStandardInput();                // throws LocalError

// The value of `variable` when it is set, else a line typed on the terminal after `prompt`, never echoed.
std::string password(const char* variable, const std::string& prompt);  // throws LocalError

bool standardErrorIsTerminal();

// Overwrites a secret before its storage goes back to the heap.
void wipe(std::string& secret);

}  // namespace zepcall
