/*
 * Layer-2 isolation. Each row of the table owns one ebtables chain, which exists beforehand, and fills it with DROP
 * rules for the interfaces that its query reports; the chain is rewritten whole at every change.
 */
#ifndef MODULES_L2FW_H
#define MODULES_L2FW_H

#include "frame/helpers.h"
#include "platform/weft.h"

enum { l2fw_rules = 4 };

struct L2fwRule {
    weft_query_t *query; /* null while stopped */
    const char *interface;
    const char *flags;
    const char *traversal;
    const char *table;
    const char *chain;
    const char *ruleArgs; /* the match of every rule; may be empty */
    void (*handler)(const L2fwRule *row, const variant_list_t *list);
};

ZEP_EXPORT L2fwRule zep_l2fw[l2fw_rules];

/* Always 1. A query that cannot be opened leaves its chain as it is. */
ZEP_EXPORT int zep_l2fw_start(void);
/* Leaves the four chains empty. */
ZEP_EXPORT void zep_l2fw_stop(void);
/* Runs a shell command line and waits for it; false, and a trace, when it failed. */
ZEP_EXPORT bool zep_l2fw_system(const char *command);
/* Result handler of every query: result is the list of interface names, data the row. */
ZEP_EXPORT void zep_l2fw_onIntfs(const variant_t *result, void *data);
/* One rule for each interface: nothing that matches leaves by it. */
ZEP_EXPORT void zep_l2fw_dropOutput(const L2fwRule *row, const variant_list_t *list);
/* One rule for each ordered pair of interfaces: nothing crosses from the one to the other. */
ZEP_EXPORT void zep_l2fw_dropBetween(const L2fwRule *row, const variant_list_t *list);

#endif
