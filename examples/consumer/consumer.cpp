// A program built against an installed sharedlib: one include, one library.
#include <sharedlib.h>

#include <cstdio>

int main() {
  char field[64];
  ajusta_str("  consumer  ", field, 63);
  XStrDyn name(field);
  name += " ok";
  _SEMAPHORE lock(3, 1, 0, static_cast<unsigned long>(-1), -1);
  lock.Wait(1, "main");
  XStrStatic<16384> line = XStrDyn("sharedlib") + ":" + name;
  lock.Signal("main");
  if (line != "SHAREDLIB:  consumer OK" || !IsLinux())
    return 1;
  std::printf("sharedlib consumer: ok\n");
  return 0;
}
