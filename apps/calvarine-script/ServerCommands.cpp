#include "ServerCommands.h"

#include "ArchiveBordCaisseExcel.h"

namespace script {

void registerServerCommands(store::Store& store)
{
    server::registerArchiveBordCaisseExcel(store);
}

} // namespace script
