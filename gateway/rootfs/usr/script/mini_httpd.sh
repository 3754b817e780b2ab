#!/bin/bash
# mini_httpd.sh start|stop: the gateway's web server (BusyBox's httpd, run
# under the name mini_httpd) on port 80, serving /var/www.
case "$1" in
  start)
    mkdir -p /var/www
    [ -e /var/www/index.html ] || echo "<html><body>gateway</body></html>" > /var/www/index.html
    exec -a httpd /gw/bin/mini_httpd -p 80 -h /var/www
    ;;
  stop) /usr/bin/killall -q -w mini_httpd ;;
  *) echo "usage: mini_httpd.sh start|stop" >&2; exit 2 ;;
esac
