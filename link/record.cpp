// The link record: the daemon's one global for the link to the controller.
#include "link/record.h"

tovrin_link_t tovrin_gbl;
