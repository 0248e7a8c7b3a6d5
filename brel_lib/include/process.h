// Process helpers of the daemon: detaching, signals, the single-instance lock.
#pragma once

#include <string>

namespace brel_lib {

// fork, setsid, descriptors 0-29 closed, /dev/null on 0-2, umask 0.
void GoDaemon();
// SIGINT, SIGHUP, SIGTTOU, SIGTTIN, SIGCHLD, SIGTERM ignored / back to default.
int SetNormalSignalIgn();
int SetNormalSignalDfl();
// sigaction without SA_RESTART; 0 or errno.
int SetSignal(int nSigNo, void (*pHandler)(int));
// 0: another process holds the lock; -1: this process holds it now and wrote its pid.
int CheckSelfRunning(const std::string& strPath);
int lock_reg(int fd, int cmd, int type, long offset, int whence, long len);
// Ends the process at once with the status: standard I/O flushed, but no
// static destructors or atexit handlers, which threads still running may use
// (the crypto library's cleanup among them). For every failure exit once
// threads run.
[[noreturn]] void ExitProcess(int nStatus);
// Prints the text and exits with -2.
[[noreturn]] void err_sys(const char* szText);

} // namespace brel_lib
