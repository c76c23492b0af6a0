// The exported per-process globals with their initial values.
#include "trovalis.h"

extern "C" {

int Trace = 0;
int Trace_LRU = 0;
int Trace_XVAR = 0;
int Trace_ALS = 0;
int Trace_Load = 1;
int ConsoleErr = 0;
int MakeLocked[2] = {0, 0};
int AutoDownload[2] = {1, 0};
int WaitPassMessages = 0;
QDMStateNotifier StateNotifierProc = nullptr;
const char *ModerationSection = "ImportEnvironment";
char *INIFile = nullptr;
static char kZelvanIniDefault[] = "Zelvan.INI";
char *Zelvan_INI = kZelvanIniDefault;
char TDSError[40] = "Zelvan Trovalis Initialization Error";
int Map_Size = 8000000;
int View_Len = 8000000;
char Map_Name[64] = "/zelvan-tds-mem-";
char Cache_Lock[64] = "/zelvan-tds-cache-";
char Download_Lock[32] = "Zelvan TeX 9 AutoDownload Mutex";
int Master_Window = 0;
int Init = 0;
char ProgName[64] = "";
char *Ptr_trovalis = nullptr;
int hMap = 0;
QDMLock *Lock = nullptr;
int Common = 0;
int SectDir = 0;

}  // extern "C"
