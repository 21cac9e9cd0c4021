#pragma once

// The device's access-policy library, as radarscene uses it: it decides
// whether a user may use a named permission.

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    PERMO2_ERROR_NOT_AUTHORIZED = 2,
};

// Filled by the library when a call fails or refuses.
typedef struct permo2_error {
    int32_t code;
    char message[256];
} permo2_error;

// Opens the policy; `flags` -1 asks for the library's defaults. Returns false
// and fills `error` on failure.
bool permo2_init(permo2_error* error, int flags);

// True when `username` holds `permission`. A refusal fills `error`: code
// PERMO2_ERROR_NOT_AUTHORIZED when the policy says no, any other code for an
// internal failure of the library.
bool permo2_check_username(const char* username, const char* permission, permo2_error* error);

void permo2_release(void);

#ifdef __cplusplus
}
#endif
