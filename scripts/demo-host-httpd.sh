# shellcheck shell=bash
# The demo's web server for `--host httpd`: a private Apache httpd with a folder,
# a port and log files of its own. Sourced by scripts/demo.
# dir, port, root, build are the demo's:
# shellcheck disable=SC2154

# shellcheck disable=SC2034  # read by scripts/demo, by its composed name
targets_httpd=(mod_nsapi)

start_host_httpd() {
  local httpd modules=/usr/lib/apache2/modules name
  httpd=$(PATH="$PATH:/usr/sbin" command -v apache2) || fail "apache2 is not installed"
  [[ -e $root/$build/lib/mod_nsapi.so ]] || fail "this build has no mod_nsapi.so"
  touch "$dir/mime.types"
  {
    # Its children must not run as root, and have to write the store.
    if [[ $EUID -eq 0 ]]; then
      chown www-data "$dir"
      printf '%s\n' 'User www-data' 'Group www-data'
    fi
    for name in mpm_event authz_core authz_host dir mime; do
      echo "LoadModule ${name}_module $modules/mod_$name.so"
    done
    cat <<CONF
LoadModule nsapi_module "$root/$build/lib/mod_nsapi.so"
ServerRoot "$dir"
ServerName localhost:$port
Listen 127.0.0.1:$port
PidFile httpd.pid
DefaultRuntimeDir "$dir"
TypesConfig mime.types
AddType text/html .html
ErrorLog error.log
ServerLimit 4
StartServers 1
ThreadsPerChild 64
MaxRequestWorkers 64
MinSpareThreads 8
DocumentRoot "$dir/htdocs"
DirectoryIndex index.html index.jsp
<Directory "$dir/htdocs">
Require all granted
</Directory>
NSAPIInit fn="load-modules" shlib="$root/$build/lib/veskconnector.so" \\
  funcs="veskinit,veskfilter,veskservice"
NSAPIInit $(init_line)
NSAPIObjectType fn="veskfilter"
NSAPIService type="vesk-internal/*" fn="veskservice"
NSAPIMapping servlet
AddType vesk-internal/ext .jsp
<Location "/vesk-status">
Require local
NSAPIObjectType none
NSAPIService fn="veskservice" report="status" actions="on"
</Location>
CONF
  } >"$dir/httpd.conf"
  host_log=$dir/error.log
  "$httpd" -DFOREGROUND -f "$dir/httpd.conf" >"$dir/host.out" 2>&1 </dev/null &
  host_pid=$!
  until ! port_is_free "$port"; do
    kill -0 "$host_pid" 2>/dev/null || fail "httpd did not start: $(cat "$dir/host.out" "$host_log")"
    sleep 0.05
  done
}
