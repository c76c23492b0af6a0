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

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Library entry ---------------------------------------------------- */

/* reason 1 attaches the process to the shared region, 2 detaches; the
 * load-time hook calls it with 1 and ends the process with status 1 when
 * that returns 0. Any other reason does nothing and returns 0. With
 * TROVALIS_DEFER_ATTACH=1 in the environment while the library is loaded,
 * the hook does not attach: the host calls this with 1 itself and decides
 * what a failure means (the attach still reports on standard error). */
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
/* Copies log lines, oldest first, into `lines`, which has room for
 * `maximum` texts of QDM_MESSAGE_BYTES bytes each (every one NUL-terminated):
 * the lines posted after the post count *since, or with since NULL the
 * newest `maximum`; when more were posted than fit or than the log holds,
 * the newest of them. *total receives the post count the copy corresponds
 * to (every post since the region was made, modulo 2^32). The count and the
 * texts are read together under the cache lock, so a line posted meanwhile
 * is neither missed nor copied twice. Returns the number of lines copied. */
#define QDM_MESSAGE_BYTES 101
TROVALIS_API int QDMCopyMessages(const unsigned *since, char *lines, int maximum,
                                 unsigned *total);
TROVALIS_API void QDMSetStateNotifier(QDMStateNotifier callback);
/* Hands every line this process logs through message() (prefix and
 * argument, up to 255 characters, without the "QDM-program: " source) to
 * tap as well, before it is cut to the queue's width; NULL stops it. For
 * tools that explain one request. */
typedef void (*QDMMessageTap)(const char *text);
TROVALIS_API void QDMSetMessageTap(QDMMessageTap tap);
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
/* A bare file name (no "/" or "\") names a file in "$HOME/Library/Zelvan
 * TeX", lowered; that directory is created when missing. Other names are
 * used as given, with "\" rewritten to "/" in place, so `file` must be
 * writable. Each process keeps a copy of every file it touched, reloaded
 * when the file's time stamp or size changes on disk. Letter case of
 * sections and keys does not matter; nothing is trimmed.
 *
 * GetPrivateProfileString: the value, cut to size - 1 bytes, and its length;
 * the default (cut to the buffer) when the file, section or key is missing.
 * A null section lists the section names (NUL-separated, one more NUL; the
 * result counts that last NUL); a null key lists the section's keys (the
 * result does not count it). A listing stops at the first entry that does
 * not fit. */
typedef struct INIF INIF;                  /* opaque per-process file copy */
TROVALIS_API extern INIF *INI_File;        /* most recently used first */

TROVALIS_API int GetPrivateProfileString(const char *section, const char *key,
                                         const char *default_value, char *buffer,
                                         int size, char *file);
/* Every non-comment line of the section, each cut at its first byte 0-10 or
 * 128-255, as a key listing. */
TROVALIS_API int GetPrivateProfileSection(const char *section, char *buffer, int size,
                                          char *file);
TROVALIS_API int GetPrivateProfileSectionNames(char *buffer, int size, char *file);
TROVALIS_API int GetProfileString(const char *section, const char *key,
                                  const char *default_value, char *buffer, int size);
/* Sets key=value (inserted after the section's last non-blank line; a new
 * section is appended), deletes the key's line when value is NULL, and
 * saves the whole file. Never deletes a section; an empty value creates
 * nothing. 1 when the text changed and a save was attempted, else 0. */
TROVALIS_API int WritePrivateProfileString(const char *section, const char *key,
                                           const char *value, char *file);
TROVALIS_API int WriteProfileString(const char *section, const char *key, const char *value);
/* Reads the key from each file named by the text list whose first entry is
 * at data-area offset `list`, in order; 1 with the first non-empty value in
 * the buffer, else 0 with an empty buffer. */
TROVALIS_API int GetProfileStringEx(int list, const char *section, const char *key,
                                    char *buffer, int size);

/* ---- Registry emulation -------------------------------------------------- */
/* Keys are sections of "REG.INI" named root "\" sub-key; values are its key
 * lines, the unnamed value being "Default". Strings only. Handles are the
 * predefined roots 0x80000000 to 0x80000007 or keys opened by
 * RegCreateKeyA (at most two at a time per process). 0 is success, 1
 * failure. */
typedef struct RegKeySlot {
  int Parent;                              /* 0: slot free */
  char SubKey[64];
} RegKeySlot;
TROVALIS_API extern RegKeySlot Key_List[2];

/* The section name for a key, in a static buffer reused by the next call;
 * NULL for a root without a name or a name of 256 bytes or more. */
TROVALIS_API char *KeyDir(int key, const char *sub_key);
TROVALIS_API int RegCreateKeyA(int key, const char *sub_key, int *result);
TROVALIS_API int RegCloseKey(int key);
TROVALIS_API int RegSetValue(int key, const char *sub_key, int type, const char *data,
                             int length);
TROVALIS_API int RegSetValueExA(int key, const char *value_name, int reserved, int type,
                                const char *data, int length);
/* *size holds the buffer's size on entry and the value's length on return;
 * 1 when the value is missing or empty. */
TROVALIS_API int RegQueryValue(int key, const char *sub_key, char *buffer, int *size);

/* ---- Configuration ------------------------------------------------------- */

/* Values from the per-user file over TEXMF.INI, cached in the region. The
 * results point into the shared region (or the environment) and stay valid
 * until the next configuration reset; copy what you keep. The workers with a
 * leading underscore expect the caller to hold the cache lock. */
TROVALIS_API extern char QDMAns[256];
TROVALIS_API char *_QDMValue(const char *section, const char *key);
TROVALIS_API int _QDMSetValue(const char *section, const char *key, const char *value,
                              int persist);
TROVALIS_API char *_QDMVar(const char *name);
/* names: a ","-separated list, cut in place during the call and put back. */
TROVALIS_API char *cnf_get(char *names);
TROVALIS_API char *QDMValue(const char *section, const char *key);
TROVALIS_API int QDMSetValue(const char *section, const char *key, const char *value);
TROVALIS_API char *QDMVar(const char *name);

/* One record per variable being expanded, innermost first. */
typedef struct QDMVarRef {
  struct QDMVarRef *next;
  const char *name;
} QDMVarRef;
/* Expands $NAME and ${NAME} references of text (writable; restored on
 * return) into out; returns the capacity not used (1: the output filled). */
TROVALIS_API int var_expand(char *text, char *out, int capacity, QDMVarRef *chain);

/* Splits path (writable) at ";" outside braces, expands {a,b} alternatives
 * and keeps the directories that exist. Returns a NULL-terminated array of
 * heap strings owned by the caller (free each, then the array), or NULL
 * when memory runs out. */
TROVALIS_API char **expand_braces(char *path);
TROVALIS_API int OKDir(const char *dir);

/* Throws away everything learned since creation and rebuilds the value
 * tables, the answer cache root, the databases and the mirror list. The
 * caller holds the cache lock. */
TROVALIS_API int QDMReset(void);
/* The 16-byte format record (answer cache, search path, suffixes, make
 * command: four data-area offsets) of a file type for a program key. */
TROVALIS_API char *FormatPath(const char *program, const char *type);


/* ---- File databases and directory search --- */

/* Loads the ls-R databases and alias files of the directories of the type
 * "ls-R" (program key "QDM"), then the network index named in SETUP.INI.
 * Called by QDMReset; the caller holds the cache lock. */
TROVALIS_API void init_db(void);

/* Looks name (which may carry a directory part, "latex/article.cls") up in
 * the databases for the path element. out is a buffer of at least 260 bytes
 * owned by the caller. Returns NULL when no database covers the element
 * (search the disk), out holding "" when one covers it but lists no
 * readable candidate, or out holding the path found (beginning with ":"
 * when the file is only in the network index). Takes the cache lock when
 * the caller does not hold it. */
TROVALIS_API char *db_search(const char *name, const char *element, char *out);

/* Searches name along the search-path list whose first element is at
 * data-area offset list: databases first, the disk where none covers an
 * element. buf is the caller's buffer of at least 260 bytes; the result is
 * buf holding the path found, or NULL. Call it without the cache lock held
 * (it takes the lock for its reads of the region); it copies the list out
 * before walking the disk. */
TROVALIS_API char *search_file(int list, const char *name, char *buf);

/* Searches name in dir and every directory below it, a directory's own
 * files before its subdirectories. dir is a writable buffer of at least 260
 * bytes holding a directory without a trailing "/"; the result is dir
 * holding the path found, or NULL (dir then holds nothing useful). Each
 * directory is entered once, so symbolic-link cycles end. */
TROVALIS_API char *recurse_dir(char *dir, const char *name);

/* Follows the link file path + ".lnk" (its first line: a target relative to
 * the link's directory, "../" steps allowed). Returns the target, in a
 * static buffer overwritten by the next call, when it exists; otherwise
 * path itself. Never NULL for a non-NULL path. */
TROVALIS_API char *find_AppBundle(char *path);


/* ---- Search requests ----------------------------------------------------- */

/* Answers a file type and a name: the path found, NULL when not found, or
 * "[Can't determine Format]". A "*" before the type ignores a cached miss; a
 * name in double quotes is searched without them. The answer is library
 * memory valid until the caller's next call. origin 0 is the internal search
 * (QDMSearch), 1 a front-end request (QDMFind); it selects the modes in
 * MakeLocked and AutoDownload. */
TROVALIS_API char *_QDMSearch(const char *type, const char *name, int origin);
TROVALIS_API char *QDMSearch(const char *type, const char *name);

/* Definition lookup for a program name in brackets: the value of the
 * longest key of section ProgName (without its brackets) matching name, in
 * the profile files of the text list at data-area offset list, with "*"
 * in the value replaced by the part of name the key's "*" stood for. buf is
 * a buffer of at least 260 bytes; NULL when no key matches. */
TROVALIS_API char *search_definition(int list, const char *name, char *buf);

/* Security framework state of AutoDownload: AuthRef is 0 before the first
 * download of the process, 1 when the authorization reference was created,
 * -1 when that failed (not retried). */
TROVALIS_API extern void *myAuthorizationRef;
TROVALIS_API extern int AuthRef;

/* ---- Cache maintenance ----------------------------------------------------- */

/* Enters a newly written file into the database and its ls-R file and
 * forgets every cached answer for its name (and for its stem when a type's
 * suffix matches). "\" is accepted as a separator; path is not changed.
 * Returns the number of answers forgotten; 0 for a path without separator
 * or longer than 255 characters. Takes the cache lock. */
TROVALIS_API int QDMNewFile(const char *path);
/* Forgets the cached answer for name of type in every program; returns how
 * many were forgotten. Takes the cache lock. */
TROVALIS_API int QDMRecycle(const char *type, const char *name);

/* ---- Mirrors --------------------------------------------------------------- */

/* Reads the [Mirrors] sections of the per-user file and TEXMF.INI into the
 * region's mirror list. Called by QDMReset; the caller holds the lock. */
TROVALIS_API int Load_Mirrors(void);
/* When path (a writable buffer of at least 260 bytes) lies under a copying
 * mirror, copies the file into the mirror's local tree and rewrites path to
 * the copy. Returns path. */
TROVALIS_API char *Process_Mirror(char *path);
/* Copies source to destination (writable; separators become "/"),
 * creating the destination's directories; 1 when the copy was made. */
TROVALIS_API int Copy_File(const char *source, char *destination);
/* Creates path for writing, making its missing directories; NULL on
 * failure. The stream is the caller's to close. */
TROVALIS_API FILE *Open_File(const char *path);

/* ---- Front end and cache report ------------------------------------------- */

/* One request in, one answer out: "[prog]<type>name" searches, "?[prog]<text>"
 * and "??[prog]<text>" expand, "!Command" switches modes. Never NULL. */
TROVALIS_API char *QDMFind(const char *request);
/* Sets ProgName (at most 63 characters). Returns 1. */
TROVALIS_API int QDMReady(const char *program);
/* Prints the cache report on standard output. */
TROVALIS_API int Print_Cache(void);

#ifdef __cplusplus
}
#endif

#endif /* TROVALIS_H */
