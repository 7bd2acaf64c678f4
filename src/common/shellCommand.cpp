#include "common/shellCommand.h"

#include <cstdlib>

namespace brask {

bool runShell(const char* command) { return std::system(command) == 0; }

}  // namespace brask
