// What completes the set-up once the file system is mounted.
#pragma once

// Runs the configuration tool with "readconfig", if it is installed, and
// waits for that child alone. Its outcome does not matter to the mount.
void run_readconfig();
// Writes "on" to <dir>/cluster. Returns 0, or errno as it stands after the
// warning has been printed.
int cluster_switch_on(const char* dir);
