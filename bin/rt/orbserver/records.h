// The protocol records that describe a ring's sources and clients, filled
// from the ring store's own entries. ORBSOURCES and ORBCLIENTS answer with
// them, and the status page is built from the same records, so both tell the
// same story.
#pragma once

#include "orb/orbfile.h"
#include "ring/ring.h"

// Overwrites o entirely from the ring's entry.
void fill_orbsrc(Orbsrc& o, const ring::Source& s);
void fill_orbclient(Orbclient& o, const ring::Client& c);
