// syslog-conf: the gateway boot's step that writes syslog-ng's configuration,
// /var/syslog-ng.conf, with the daemon's own code: the template
// /etc/syslog-ng.conf, the destination that "URLSYSLOGServer" and "Protocol"
// of Watchdog_Common name (the local file without a server), and the log
// statement. What the daemon's code says about the settings goes to
// standard error. Exits 1 when the configuration could not be completed.
#include "wd_syslogng.h"

int main() { return wd_sngWriteConfig() ? 0 : 1; }
