// Who may do what with a file that takes the name of another one.
#pragma once

#include <sys/stat.h>

#include <string>

// Permissions of a file that is being made to replace `old`, before umask: nobody may do more with
// it than with that one, but for this user, who writes it.
mode_t RightsToReplace(const struct stat& old);

// Gives the open file the owner, group and permissions of `old`, as far as this user may. Where the
// group stays another one, group and others keep only what both had; ACLs, set-user-ID and
// set-group-ID are not taken over. Returns an error number when somebody may do more with the file
// than with the old one, and 0 otherwise.
int TakeRights(int file, const struct stat& old);
