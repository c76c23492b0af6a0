#include <stdio.h>
#include <trovalis.h>

int main(void) {
  const char *p = QDMSearch("tex", "hello.tex");
  puts(p ? p : "not found");
  return p ? 0 : 1;
}
