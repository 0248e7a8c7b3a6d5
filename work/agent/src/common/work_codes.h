// The codes that works and replies carry, shared by the session and every
// manager: the stages of a work and the ret codes of replies. 0 is success.
#pragma once

// Stages of a work; 4 is reported for a work that does not exist.
enum { WORK_NOT_BEGIN = 0, WORK_RUNNING = 1, WORK_FINISHED = 2, WORK_DELETED = 3, WORK_UNKNOWN = 4 };

// ret codes of replies, and nErrno of a work.
enum {
    // The tables of works.
    RET_NO_SUCH_WORK = 300,  // or it can't be deleted again
    RET_WORK_NOT_ALLOCATED = 301,
    RET_CONCURRENT_LIMIT = 302,
    RET_WORK_ID_EXISTS = 323,
    RET_DELETED_WHILE_RUNNING = 327,
    // The launch of a command work.
    RET_PIPE_FAILED = 304,
    RET_FORK_FAILED = 305,
    RET_BUFFER_FAILED = 306,
    RET_BAD_ACTION = 309,  // the requested action isn't 1
    // The end of a work.
    RET_WORK_TIMEOUT = 324,
    RET_WAITPID_FAILED = 325,
    RET_UNEXPLAINED_END = 326,
    // The file source.
    RET_NO_LISTEN_PORT = 313,
    RET_SRC_FILE_UNREADABLE = 314,  // can't be opened or read, or isn't a regular file
    RET_BEGIN_POS_BEYOND_END = 316,
    RET_SRC_STAT_FAILED = 329,
    RET_READ_BUF_FAILED = 334,
    RET_SRC_MD5_MISMATCH = 335,
    RET_DAEMON_MAY_NOT_READ = 338,
    RET_BAD_ADDRESS = 1000,
    // The session.
    RET_MOVE_REFUSED = 310,  // the move to a new server was refused or undone
};

// The file destination.
enum {
    RET_SRC_CONNECT_FAILED = 317,
    RET_SRC_NO_RESPONSE = 318,     // connected, but no response in time
    RET_DST_CREATE_FAILED = 320,
    RET_DST_NO_SPACE = 321,
    RET_DST_WRITE_FAILED = 322,    // other write failures, a short write, a wrong size on disk
    RET_IN_CACHE_COMPLETE = 330,   // no failure: the file is there
    RET_RUNS_BY_ITSELF = 331,      // no failure: watch it through reports
    RET_CACHE_FULL = 333,
    RET_DAEMON_MAY_NOT_MODIFY = 339,
    RET_DAEMON_DIR_DENIED = 340,   // the directory is missing or not writable for daemon
    RET_DAEMON_UNKNOWN = 341,
    RET_BLOCK_MD5_MISMATCH = 342,
    // The opt-in whole-file check: the file isn't the one the create expected;
    // the same meaning as the source's code for its file.
    RET_DST_FILE_MD5_MISMATCH = RET_SRC_MD5_MISMATCH,
};
