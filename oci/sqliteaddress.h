/* The address of an embedded database: where its file is, and how it is to be kept. */
#ifndef OCI_SQLITEADDRESS_H
#define OCI_SQLITEADDRESS_H

#include <string>

#include "oci/dbdriver.h"

struct SqliteAddress {
    std::string path;
    std::string synchronous = "full";  // full, normal
    std::string locking = "normal";    // normal, exclusive
};

/** Reads "sqlite:PATH?synchronous=normal&locking=exclusive". Any other address is taken for a connect identifier of
 *  the vendor's: this library then stands in for the vendor's, and the environment variable VELMORA_OCI_SQLITE_FILE
 *  holds what would stand behind "sqlite:".
 *
 *  @return false with the error filled
 */
bool sqlite_read_address(const char *database, SqliteAddress *address, DB_ERROR_S *error);

#endif
