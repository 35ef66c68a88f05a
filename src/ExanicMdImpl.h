// The feed driver: brings the pipeline up, takes the snapshot while caching
// decoded records, replays the cache, then applies records live until
// *running is cleared; a fatal stream error restarts from the configuration.
#pragma once

extern "C" {

// Returns 0 after an orderly stop, -1 after a start-up failure (logged).
// `running` is polled by every loop; clearing it (from a signal handler)
// stops the feed.
int quvo_recv(const char* config_path, int* running);
}

// The build date and time followed by the release, as the feed logs it.
const char* quvo_software_version();
