#include "table_commands.h"

namespace Vel::Zepctl {

void addTableCommands(CLI::App& /*app*/) {}

}  // namespace Vel::Zepctl
