/* A companion that opens but reports no version: the library must keep it
 * open with an empty table. */
int pelkosslversion(char* ver, int size) {
  if (ver && size > 0) ver[0] = 0;
  return 0;
}
