// HTTP: the routes of the browser and the headers every answer carries.
#pragma once

#include <httplib.h>

#include "pages.h"

namespace browse {

// GET / (overview), /contig/NAME[.txt] (contig window), /read/NAME[.flows.tsv|.bases.tsv];
// anything else is answered 404. Each answer says in a Server-Timing header how long the
// page took to build.
void add_routes(httplib::Server& server, const site& s);

// Copies a built page into an HTTP answer.
void send(const response& page, httplib::Response& res, double build_ms);

}  // namespace browse
