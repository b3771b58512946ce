#ifndef NK_STATION_WEB_ROOT_H
#define NK_STATION_WEB_ROOT_H

#include <string>

// Where the dashboard's static files are: beside an installed program
// (<prefix>/bin/nkstation serves <prefix>/share/nkstation/web), else the source tree the
// program was built from. Empty when neither holds them.
std::string findWebRoot();

// Debian's charting library (libjs-chart.js), served by the station, never copied into the tree.
constexpr char const* kDebianChartJs = "/usr/share/javascript/chart.js";

#endif
