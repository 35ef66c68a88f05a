// Entry functions and shared-memory helpers of the feed, with plain linkage.
#pragma once

#include <string>

#include "interface/commonheader.h"

extern "C" {

// Attaches (creating with mode 0777 if absent) the System V segment of at
// least `size` bytes keyed by ftok(path, 0x52), read-write. Never returns on
// failure: prints the cause and advice on standard error and exits with 1.
char* create_shm(const char* path, unsigned int size);

// Detaches the segment at `addr`; the segment itself is left for readers.
// Exits with 1 if the detach fails.
void free_shm(char* addr);

// Stores `callback` in update_md. The feed announces updates through the
// update ring and does not call it.
void set_update_md_callback(void (*callback)(instrument*));

extern void (*update_md)(instrument*);
}

// Path of a key file ("key_f" or "key_e"): in the directory named by
// QUVO_KEY_DIR when that is set, else in /etc. The feed and every tool use it.
std::string shm_key_path(const char* keyFile);
