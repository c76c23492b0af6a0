/* trovalis.h: the public C interface of the trovalis file-finding library.
 *
 * Conventions
 *  - Valid C and C++. Every function and global here is exported from
 *    trovalis.so (trovalis.dylib on macOS); nothing else is.
 *  - Results are integers (1 or a count for success, 0 for nothing done; the
 *    registry calls alone return 0 for success and 1 for failure), text
 *    pointers (NULL for "not found") or status texts in square brackets.
 *  - A text pointer handed out by the library points at memory the library
 *    owns. It stays valid until the caller's next call into the library
 *    unless the function says otherwise; copy what you keep.
 *  - Pointers into the shared region (INIFile, QDMGetPool, QDMMsgInfo,
 *    QDMGetMessages) are valid only in the process that asked, while the
 *    library is loaded.
 *  - Path arguments may be rewritten in place ("\" becomes "/"), so they
 *    must be writable.
 *  - One thread per process may use the library at a time.
 *  - "32-bit" arguments and values are plain int: 32 bits on every
 *    platform the library supports.
 */
#ifndef TROVALIS_H
#define TROVALIS_H

#if defined(TROVALIS_BUILDING)
#define TROVALIS_API __attribute__((visibility("default")))
#else
#define TROVALIS_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Library entry ---------------------------------------------------- */

/* reason 1 attaches the process to the shared region, 2 detaches; the
 * load-time hook calls it with 1 and ends the process with status 1 when
 * that returns 0. Any other reason does nothing and returns 0. */
TROVALIS_API int DllEntryPoint(void *module, int reason, void *reserved);

/* ---- Per-process globals ------------------------------------------------ */

typedef struct QDMLock QDMLock;            /* opaque named-lock handle */
typedef void (*QDMStateNotifier)(int value);

TROVALIS_API extern int Trace;
TROVALIS_API extern int Trace_LRU;
TROVALIS_API extern int Trace_XVAR;
TROVALIS_API extern int Trace_ALS;
TROVALIS_API extern int Trace_Load;
TROVALIS_API extern int ConsoleErr;
TROVALIS_API extern int MakeLocked[2];
TROVALIS_API extern int AutoDownload[2];
TROVALIS_API extern int WaitPassMessages;
TROVALIS_API extern QDMStateNotifier StateNotifierProc;
TROVALIS_API extern const char *ModerationSection;
TROVALIS_API extern char *INIFile;
TROVALIS_API extern char *Zelvan_INI;
TROVALIS_API extern char TDSError[40];
TROVALIS_API extern int Map_Size;
TROVALIS_API extern int View_Len;
TROVALIS_API extern char Map_Name[64];
TROVALIS_API extern char Cache_Lock[64];
TROVALIS_API extern char Download_Lock[32];
TROVALIS_API extern int Master_Window;
TROVALIS_API extern int Init;
TROVALIS_API extern char ProgName[64];
TROVALIS_API extern char *Ptr_trovalis;
TROVALIS_API extern int hMap;
TROVALIS_API extern QDMLock *Lock;
TROVALIS_API extern int Common;
TROVALIS_API extern int SectDir;

/* ---- Process emulations ------------------------------------------------ */

/* Full path of the running executable (not of the library). Returns size on
 * success; 0 with an empty buffer when the path does not fit. */
TROVALIS_API int GetModuleFileName(void *module, char *buffer, int size);
TROVALIS_API void *GetModuleHandle(const char *name); /* always NULL */
TROVALIS_API void OemToChar(const char *source, char *destination); /* no-op */
/* Folder for a Windows shell folder id; a static buffer, overwritten by the
 * next call, never NULL. */
TROVALIS_API char *GetSystemFolder(int folder_id);
/* Creates a directory and its missing parents (mode 0700); 0 on success.
 * Rewrites "\" to "/" in path. */
TROVALIS_API int MkDirs(char *path);
TROVALIS_API const char *LastErr(void);
TROVALIS_API const char *popen_lasterror(void);
/* Writes "ERROR: caption" and "ERROR: text" on standard error; returns 1. */
TROVALIS_API int MessageBox_S(const char *text, const char *caption);

/* ---- Shared region: arena and containers ------------------------------- */
/* None of these takes the cache lock; the caller holds it. Offsets are
 * data-area offsets; 0 is "none", -1 a failed allocation. */

TROVALIS_API int salloc(int size);
TROVALIS_API int stradd(const char *text);
TROVALIS_API int add_str(int value, const char *text);
/* Address of the object that the offset word at `word` designates; NULL for
 * 0 or an offset outside the region. */
TROVALIS_API char *next_str(const void *word);

TROVALIS_API int hash_create(int buckets);
TROVALIS_API void hash_insert(int table, const char *key, int value);
TROVALIS_API void hash_insert_revert(int table, const char *key, int value);
TROVALIS_API int hash_lookup(int table, const char *key);
TROVALIS_API int lru_create(const char *name);
TROVALIS_API void lru_insert(int list, const char *key, int value);
TROVALIS_API int lru_lookup(int list, const char *key);
/* Entries are byte-packed: next offset (4 bytes), value (4), key text. */
TROVALIS_API char *lru_head(int list);
TROVALIS_API int list_append(int list, const char *text, int value);
TROVALIS_API char *next_key(const char *entry);

/* ---- Message log and queue --------------------------------------------- */

/* Posts "QDM-" ProgName ": " prefix argument (argument may be NULL). Safe
 * with or without the cache lock held. */
TROVALIS_API int message(const char *prefix, const char *argument);
TROVALIS_API int _QDMMessage(const char *source, const char *text, int type);
TROVALIS_API int QDMMessage(const char *source, const char *text, int type);
/* Newest first; the texts stay valid for 1024 - i further posts. */
TROVALIS_API int _QDMGetMessages(char **texts, int maximum);
TROVALIS_API int QDMGetMessages(char **texts, int maximum);
/* Four words: held, total, warnings, type-5 posts. */
TROVALIS_API int *QDMMsgInfo(void);
TROVALIS_API void QDMSetStateNotifier(QDMStateNotifier callback);
TROVALIS_API int NotifyState(int value);
/* 0: main configuration file, 1: per-user file, else NULL. */
TROVALIS_API char *QDMINIFile(int which);

/* ---- Frame registry ------------------------------------------------------ */

TROVALIS_API int RegisterFrame(const char *name, int handle);
TROVALIS_API int UnRegisterProcessFrames(int pid);
TROVALIS_API int FindFrame(const char *name);
TROVALIS_API int FrameList(char *buffer, int size);

/* ---- Resource pools ----------------------------------------------------- */

TROVALIS_API int QDMAddToPool(const char *text);
TROVALIS_API char *QDMGetPool(void);
TROVALIS_API void QDMClearPool(void);
TROVALIS_API void QDMDeinstallPooledFonts(void);
TROVALIS_API int QDMImageCacheIndexPool(void **address, int *size);

/* ---- Profiles (INI files) ---------------------------------------------- */

/* ---- Registry emulation -------------------------------------------------- */

/* ---- Configuration ------------------------------------------------------- */

#ifdef __cplusplus
}
#endif

#endif /* TROVALIS_H */
