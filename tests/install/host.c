/* A host of the installed library: fetches the switch record as a transaction manager does
 * and checks its name. Built as strict ISO C11 against the installed tree through pkg-config
 * and through find_package(xajms); built asking for POSIX, it also takes the pool lock. */
#include <stdio.h>
#include <string.h>

#include <xajms/xajms.h>

int main(void) {
    const struct xa_switch_t *record = OrloStart();
    if (record == NULL || strncmp(record->name, "KEL_VARNELINK", RMNAMESZ) != 0) {
        fprintf(stderr, "host: no KEL_VARNELINK switch\n");
        return 1;
    }
#if defined(_POSIX_C_SOURCE) && _POSIX_C_SOURCE >= 200112L
    /* The lock is created on first use; a host of the same process may take it. */
    lockConnectionPool_jms();
    if (pthread_rwlock_trywrlock(&iRWLock_jms) == 0) {
        fprintf(stderr, "host: the pool lock was not held\n");
        return 1;
    }
    unlockConnectionPool_jms();
#endif
    printf("switch %.*s\n", RMNAMESZ, record->name);
    return 0;
}
