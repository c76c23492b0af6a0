/* A host program written in C against the public header: the library's
 * load-time hook attaches it before main. Commands run in order:
 *   info                     Init, program name, Mem_Mark, configuration files
 *   post TEXT TYPE           QDMMessage
 *   messages N               the newest N messages, newest first
 *   search TYPE NAME         QDMSearch: "answer=PATH" or "answer=(null)"
 *   request REQUEST          QDMFind: "answer=TEXT"
 *   hammer SECONDS TYPE NAME...  for SECONDS, every reading export over and
 *                            over (searches of each NAME, queries, the log,
 *                            frames, values, the report); prints
 *                            "rounds=N found=M"
 */
#define _POSIX_C_SOURCE 200809L

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "trovalis.h"

static double now(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return (double)t.tv_sec + (double)t.tv_nsec / 1e9;
}

/* One round of everything a reader does; returns the answers found. */
static int hammer_round(int round, const char *type, char **names, int count) {
  char *texts[16];
  char frames[256];
  char request[300];
  int found = 0, k;
  for (k = 0; k < count; ++k) {
    found += QDMSearch(type, names[k]) != NULL;
    snprintf(request, sizeof request, "<%s>%s", type, names[k]);
    found += QDMFind(request)[0] != '[';
  }
  snprintf(request, sizeof request, "<%s>miss%d", type, round % 50);
  QDMFind(request);
  QDMFind("?<$TEXMF>");
  QDMFind("?" "?<$TEXMF>");
  QDMValue("QDM", type);
  QDMVar("TEXMF");
  QDMGetMessages(texts, 16);
  FrameList(frames, sizeof frames);
  FindFrame("main");
  QDMGetPool();
  if (round % 20 == 0) {
    /* The report goes to /dev/null: only reading it matters here. */
    const int saved = dup(1), null = open("/dev/null", O_WRONLY);
    fflush(stdout);
    if (saved >= 0 && null >= 0) {
      dup2(null, 1);
      Print_Cache();
      fflush(stdout);
      dup2(saved, 1);
    }
    if (saved >= 0) close(saved);
    if (null >= 0) close(null);
  }
  return found;
}

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
    } else if (strcmp(cmd, "search") == 0 && i + 1 < argc) {
      const char *r = QDMSearch(argv[i], argv[i + 1]);
      printf("answer=%s\n", r ? r : "(null)");
      i += 2;
    } else if (strcmp(cmd, "request") == 0 && i < argc) {
      printf("answer=%s\n", QDMFind(argv[i++]));
    } else if (strcmp(cmd, "hammer") == 0 && i + 2 < argc) {
      const double end = now() + atof(argv[i]);
      const char *type = argv[i + 1];
      char **names = argv + i + 2;
      const int count = argc - i - 2;
      long rounds = 0, found = 0;
      while (now() < end) found += hammer_round((int)rounds++, type, names, count);
      printf("rounds=%ld found=%ld\n", rounds, found);
      i = argc;
    } else {
      fprintf(stderr, "host: bad command %s\n", cmd);
      return 2;
    }
  }
  return 0;
}
