#pragma once

// The commands of calvarine-db that read records to judge them: import and check.
// Each prints its report and gives the exit status.

#include <string>
#include <vector>

namespace store {
class Store;
}

// Imports the files ("-": standard input) in one transaction, all or nothing.
// Every line is checked (see Consistency): a line that is no record, or an
// error, refuses the whole run, with one "file:line : ..." per error in line
// order; lenient imports the errors of records with a warning each. Notices
// never refuse. Prints what it imported per file.
int importFiles(store::Store& store, const std::vector<std::string>& files, bool lenient);

// Reads every record of the database and reports each error and notice with
// their counts; 1 when there is an error.
int checkDatabase(store::Store& store);
