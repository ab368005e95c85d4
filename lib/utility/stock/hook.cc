#include "stock/hook.h"

Hook* new_hook(void (*free_routine)(void*)) {
    Hook* h = new Hook;
    h->free = free_routine;
    return h;
}

void free_hook(Hook** hook) {
    if (!hook || !*hook) return;
    Hook* h = *hook;
    if (h->p && h->free) h->free(h->p);
    delete h;
    *hook = nullptr;
}
