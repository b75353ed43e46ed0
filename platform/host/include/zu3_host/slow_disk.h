/**
 * Lets a client exit while a disk is stalled, beside the contract. Look the function up by name
 * (dlsym): another platform has none.
 */
#ifndef ZU3_HOST_SLOW_DISK_H
#define ZU3_HOST_SLOW_DISK_H

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Stops waiting for disks, permanently: writes to regular files that are under way return at once,
 * and later ones return at once unless the disk answers first. Data that the disk has may still
 * reach the file. Any thread.
 */
void zu3_host_give_up_writes(void);

#ifdef __cplusplus
}
#endif

#endif
