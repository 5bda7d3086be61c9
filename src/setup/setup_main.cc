#include <cstdio>

int main() {
  std::fputs("dravnik-setup: not built yet\n", stderr);
  return 1;
}
