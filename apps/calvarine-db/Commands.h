#pragma once

// The commands of calvarine-db that read records to judge them: import and check.
// Each prints its report and gives the exit status.

#include <string>
#include <vector>

namespace store {
class Store;
}

// Imports the files in one transaction, all or nothing. Every line is checked
// (see Consistency): a problem refuses the whole run, with one "file:line: ..."
// per problem, unless lenient, which imports them with a warning each. Prints
// what it imported per file.
int importFiles(store::Store& store, const std::vector<std::string>& files, bool lenient);

// Reads every record of the database and reports each inconsistency with the
// count; 1 when there is any.
int checkDatabase(store::Store& store);
