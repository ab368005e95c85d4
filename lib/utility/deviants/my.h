// Facts about this process and small process settings.
#pragma once

const char* my_hostname();   // this host's name (cached; "localhost" when unknown)
const char* my_username();   // the effective user's login name (cached; "uid<N>" when unknown)
const char* myexecname();    // absolute path of the running program (cached; "" when unknown)
int ignoreSIGPIPE();         // writes to a closed pipe or socket fail with EPIPE instead of killing; 0 or -1
