/* Preloaded into programs under test in the AddressSanitizer build: a
 * library is never unloaded. SDL's window loads the GL driver, and closing
 * the display unloads it; what the driver's globals still pointed to then
 * has no root, and LeakSanitizer reports it as leaked from an "<unknown
 * module>" that no suppression can name. With the driver kept mapped, its
 * allocations stay reachable and every leak report names its library. */
int dlclose(void* handle);

int dlclose(void* handle) {
  (void)handle;
  return 0;
}
