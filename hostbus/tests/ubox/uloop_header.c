/* Compiled alone: uloop.h brings no feature macro of its own, so struct uloop_signal's
 * struct sigaction needs the GNU dialect (or the includer's macro), as on the devices. */
#include <libubox/uloop.h>
