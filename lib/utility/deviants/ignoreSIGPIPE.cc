#include <signal.h>

#include "deviants/my.h"

int ignoreSIGPIPE() {
    struct sigaction sa {};
    sa.sa_handler = SIG_IGN;
    sigemptyset(&sa.sa_mask);
    return sigaction(SIGPIPE, &sa, nullptr) == 0 ? 0 : -1;
}
