// Hook: an owned opaque pointer with its own free routine, used to keep
// per-call-site state (a compiled pattern, say) between calls.
#pragma once

struct Hook {
    void* p = nullptr;                      // the state, owned
    void (*free)(void* p) = nullptr;        // frees p; null when p needs no freeing
};

Hook* new_hook(void (*free_routine)(void*));
void free_hook(Hook** hook);                // frees state and hook, and nulls *hook (null accepted)
