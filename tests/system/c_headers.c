/* The public headers as a C program sees them: they compile together, and their records have the size that the C++
 * side of the libraries gives them. */
#include "tests/system/c_headers.h"

#include "foundation/config.h"
#include "foundation/paa.h"
#include "gateway/vloci.h"
#include "genhtml/chfilel.h"
#include "genhtml/genhtml.h"
#include "ivs/ivs.h"
#include "oci/oci.h"
#include "packet/packet.h"
#include "packet/typecodes.h"
#include "process/velproc.h"
#include "raserver/raextern.h"
#include "raserver/raserver.h"

#define C_SIDE(record) {#record, sizeof(record)},

const struct RecordSize c_record_sizes[] = {C_HEADERS_RECORDS(C_SIDE){0, 0}};
