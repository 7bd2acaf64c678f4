/* A firmware-like consumer: calls an exported function so the link needs the
 * library; the program is built, never run. */
#include <BraskSvf.h>

int main(void) {
    svfIniTimer();
    return 0;
}
