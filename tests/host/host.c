/* A host program written in C against the public header: the library's
 * load-time hook attaches it before main. Commands run in order:
 *   info                     Init, program name, Mem_Mark, configuration files
 *   post TEXT TYPE           QDMMessage
 *   messages N               the newest N messages, newest first
 *   register NAME HANDLE     RegisterFrame
 *   find NAME                FindFrame
 *   list SIZE                FrameList into SIZE bytes
 *   search TYPE NAME         QDMSearch: "answer=PATH" or "answer=(null)"
 *   request REQUEST          QDMFind: "answer=TEXT"
 *   newfile PATH             QDMNewFile: "forgotten=N"
 *   modes M0 M1 D0 D1 CON    MakeLocked, AutoDownload and ConsoleErr
 *   trace                    Trace = 1 (this process only)
 *   ready                    prints "ready" and waits to be killed
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "trovalis.h"

static int header_word(int n) {
  int v;
  memcpy(&v, Ptr_trovalis + 4 * n, sizeof v);
  return v;
}

int main(int argc, char **argv) {
  int i = 1;
  while (i < argc) {
    const char *cmd = argv[i++];
    if (strcmp(cmd, "info") == 0) {
      printf("init=%d prog=%s mark=%d makelocked=%d,%d\n", Init, ProgName, header_word(2),
             MakeLocked[0], MakeLocked[1]);
      printf("ini=%s\nuser=%s\n", QDMINIFile(0) ? QDMINIFile(0) : "(null)",
             QDMINIFile(1) ? QDMINIFile(1) : "(null)");
    } else if (strcmp(cmd, "post") == 0 && i + 1 < argc) {
      QDMMessage(NULL, argv[i], atoi(argv[i + 1]));
      i += 2;
    } else if (strcmp(cmd, "messages") == 0 && i < argc) {
      char *texts[1024];
      int n = atoi(argv[i++]), k, got;
      if (n > 1024) n = 1024;
      got = QDMGetMessages(texts, n);
      for (k = 0; k < got; ++k) printf("%s\n", texts[k]);
    } else if (strcmp(cmd, "register") == 0 && i + 1 < argc) {
      printf("registered=%d\n", RegisterFrame(argv[i], atoi(argv[i + 1])));
      i += 2;
    } else if (strcmp(cmd, "find") == 0 && i < argc) {
      printf("found=%d\n", FindFrame(argv[i++]));
    } else if (strcmp(cmd, "list") == 0 && i < argc) {
      char buf[4096];
      int size = atoi(argv[i++]), n;
      const char *p;
      if (size > (int)sizeof buf) size = (int)sizeof buf;
      n = FrameList(buf, size);
      printf("list=%d:", n);
      for (p = buf; *p; p += strlen(p) + 1) printf(" %s", p);
      printf("\n");
    } else if (strcmp(cmd, "search") == 0 && i + 1 < argc) {
      const char *r = QDMSearch(argv[i], argv[i + 1]);
      printf("answer=%s\n", r ? r : "(null)");
      i += 2;
    } else if (strcmp(cmd, "request") == 0 && i < argc) {
      printf("answer=%s\n", QDMFind(argv[i++]));
    } else if (strcmp(cmd, "newfile") == 0 && i < argc) {
      printf("forgotten=%d\n", QDMNewFile(argv[i++]));
    } else if (strcmp(cmd, "modes") == 0 && i + 4 < argc) {
      MakeLocked[0] = atoi(argv[i]);
      MakeLocked[1] = atoi(argv[i + 1]);
      AutoDownload[0] = atoi(argv[i + 2]);
      AutoDownload[1] = atoi(argv[i + 3]);
      ConsoleErr = atoi(argv[i + 4]);
      i += 5;
    } else if (strcmp(cmd, "trace") == 0) {
      Trace = 1;
    } else if (strcmp(cmd, "ready") == 0) {
      printf("ready\n");
      fflush(stdout);
      for (;;) pause();
    } else {
      fprintf(stderr, "host: bad command %s\n", cmd);
      return 2;
    }
  }
  return 0;
}
