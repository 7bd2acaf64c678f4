/* Takes the address of an exported function so the link needs the library;
 * the program is built, never run. */
#include <BraskSvf.h>

int main(void) {
    void (*volatile timer)(void) = svfIniTimer;
    return timer != 0 ? 0 : 1;
}
