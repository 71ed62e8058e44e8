/* A host of the installed library: fetches the switch record as a transaction manager does
 * and checks its name. Built against the installed tree through pkg-config and through
 * find_package(xajms). */
#include <stdio.h>
#include <string.h>

#include <xajms/xajms.h>

int main(void) {
    const struct xa_switch_t *record = OrloStart();
    if (record == NULL || strncmp(record->name, "KEL_VARNELINK", RMNAMESZ) != 0) {
        fprintf(stderr, "host: no KEL_VARNELINK switch\n");
        return 1;
    }
    printf("switch %.*s\n", RMNAMESZ, record->name);
    return 0;
}
