#!/bin/sh
# Starts nginx for qvdlm's end-to-end tests on 127.0.0.1:<port>, serving <www> at a limited rate, so
# that a download is still running when the test interrupts it. Configuration, pid file, logs and temp
# folders all live under <prefix>. Usage: qvdlm-nginx-start.sh <nginx> <fixtures dir> <prefix> <port> <www>
set -e
nginx=$1 fixtures=$2 prefix=$3 port=$4 www=$5

sh "$fixtures/stop-pid.sh" "$prefix/nginx.pid" nginx
mkdir -p "$prefix/tmp" "$www"
printf 'hello from qvdlm\n' >"$www/hello.txt"
: >"$prefix/access.log"

cat >"$prefix/nginx.conf" <<CONF
worker_processes 1;
pid $prefix/nginx.pid;
error_log $prefix/error.log warn;
events { worker_connections 64; }
http {
    log_format qvdlm '\$remote_addr "\$request" \$status \$body_bytes_sent range="\$http_range"';
    access_log $prefix/access.log qvdlm;
    client_body_temp_path $prefix/tmp/body;
    proxy_temp_path $prefix/tmp/proxy;
    fastcgi_temp_path $prefix/tmp/fastcgi;
    uwsgi_temp_path $prefix/tmp/uwsgi;
    scgi_temp_path $prefix/tmp/scgi;
    default_type application/octet-stream;
    sendfile on;
    keepalive_timeout 30s;
    server {
        listen 127.0.0.1:$port;
        server_name localhost;
        root $www;
        limit_rate 4m;
        location / { }
    }
}
CONF

"$nginx" -p "$prefix" -e "$prefix/error.log" -c "$prefix/nginx.conf" </dev/null >"$prefix/start.log" 2>&1
python3 "$fixtures/wait-port.py" "$port" 10
