// The private steps on single host files and directories from which object
// creation, copying, moving and deletion are built. Not installed.
//
// Each takes a qor path, translates it into the shared freestore inside its
// own save/restore bracket, and gives 2051 when the path is null or does not
// translate, so a caller can hand it a member path (QOR_SH_lock_path and its
// kin) without testing it first. Failures are recorded once, here, with the
// step's context code; the expected outcomes below come back without a
// message.
#pragma once

namespace qor::objects {

// mkdir with permission bits 0777 (under the umask), the path translated
// with render mode 1. EEXIST gives 2053 without a message; ENOSPC asks the
// disc-full handler and tries again while it answers 0; an interrupted
// mkdir is not made again. Recorded with context 2102.
int make_directory(const char *qor_path);

// open with O_WRONLY, O_CREAT and O_EXCL, permission bits 0777, then close.
// EEXIST gives 2053 without a message; ENOSPC as for make_directory; EINTR
// retried, 101 calls in all. Recorded with context 2101.
int make_empty_file(const char *qor_path);

// unlink. With quiet set, a missing file gives 2052 without a message;
// without it, that too is recorded. Recorded with context 2103.
int remove_file(const char *qor_path, bool quiet);

// rmdir, the path translated as a directory path. Recorded with context
// 2104 (a directory that is not empty gives 2065).
int remove_directory(const char *qor_path);

}  // namespace qor::objects
