#include "ServerCommands.h"

#include "server/ArchiveBordCaisseExcel.h"

namespace script {

void registerServerCommands(store::Store& store)
{
    server::registerArchiveBordCaisseExcel(store);
}

} // namespace script
