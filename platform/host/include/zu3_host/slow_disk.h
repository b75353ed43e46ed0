/**
 * For a client that has to end while a disk stands still, beside the contract. A client looks the
 * function up by name (dlsym), since another platform has none.
 */
#ifndef ZU3_HOST_SLOW_DISK_H
#define ZU3_HOST_SLOW_DISK_H

#ifdef __cplusplus
extern "C" {
#endif

/**
 * From this call on no write of the process to an ordinary file waits for its disk: those under way
 * end at once, and so do later ones unless the disk answers first. What was handed over to the disk
 * may still reach the file. From any thread; for good.
 */
void zu3_host_give_up_writes(void);

#ifdef __cplusplus
}
#endif

#endif
