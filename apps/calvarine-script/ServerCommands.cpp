#include "ServerCommands.h"

#ifdef CALVARINE_SCRIPT_HAS_SERVER
#include CALVARINE_SCRIPT_SERVER_HEADER
#endif

namespace script {

void registerServerCommands([[maybe_unused]] store::Store& store)
{
#ifdef CALVARINE_SCRIPT_HAS_SERVER
    server::registerArchiveBordCaisseExcel(store);
#endif
    // HOOK: until platform/server provides calvarine_server, no command is
    // registered and every Execute "P" fails as under "server none".
}

} // namespace script
