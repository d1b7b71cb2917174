# Sourced by the benches that compare with nginx, after $work and $pids exist:
# start_nginx PORT serves $work/nginx/www on 127.0.0.1:PORT (one worker, sendfile, no access log)
# and adds its pid to $pids.
start_nginx() {
    mkdir -p "$work/nginx/www"
    cat >"$work/nginx/nginx.conf" <<NGINX
worker_processes 1;
pid $work/nginx/nginx.pid;
error_log $work/nginx/error.log;
events { worker_connections 4096; }
http {
    access_log off;
    sendfile on;
    client_body_temp_path $work/nginx; proxy_temp_path $work/nginx; fastcgi_temp_path $work/nginx;
    uwsgi_temp_path $work/nginx; scgi_temp_path $work/nginx;
    server { listen 127.0.0.1:$1; root $work/nginx/www; }
}
NGINX
    nginx -c "$work/nginx/nginx.conf" -p "$work/nginx" -g 'daemon off;' 2>/dev/null &
    pids+=($!)
    sleep 0.5
}
