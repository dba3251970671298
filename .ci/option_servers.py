"""Servers for .ci/option_check: with logins, an authority of their own, limits and redirects."""
import base64
import hashlib
import http.client
import json
import os
import subprocess

from servers import Server, some_port

USER, PASSWORD, REALM = "me", "s3cr:t@% x", "realm"

# Every request tells in the query to which run it belongs (t), and what else is to happen.
NGINX = """@user@
daemon off; pid @state@/pid; error_log @state@/errors; worker_processes 1; events { }
http {
    log_format lines escape=json '{"t":"$arg_t$arg_video_id","port":"$server_port","host":"$host",'
        '"uri":"$uri","status":$status,"resumed":"$ssl_session_reused",'
        '"connection":$connection,'
        '"range":"$http_range","via":"$http_via",'
        '"authorization":"$http_authorization","cookie":"$http_cookie","x":"$http_x_key",'
        '"accept":"$http_accept","agent":"$http_user_agent",'
        '"end":$msec,"took":$request_time}';
    access_log @state@/log lines; root @root@; default_type application/octet-stream;
    client_body_temp_path @state@/t; proxy_temp_path @state@/t; fastcgi_temp_path @state@/t;
    uwsgi_temp_path @state@/t; scgi_temp_path @state@/t;
    map $arg_name $disposition { @names@ }
    map $status $pause { 429 $arg_pause; 503 $arg_pause; default ""; }
    map $arg_pause $soon { 9 ""; default $arg_t; }
    map $arg_pause $never { 9 $arg_t; default ""; }
    limit_req_zone $soon zone=soon:1m rate=24r/m; limit_req_zone $never zone=never:1m rate=1r/m;
    ssl_certificate @state@/server.pem; ssl_certificate_key @state@/server.key;
    ssl_client_certificate @state@/ca.pem; ssl_session_cache shared:sessions:1m;
    server {
        listen 127.0.0.1:@port@; listen 127.0.0.1:@other@; listen 127.0.0.1:@tls@ ssl;
        location ~ ^/to/path(/.*) { return 302 $scheme://$http_host$1$is_args$args; }
        location ~ ^/to/host(/.*) { return 302 $scheme://localhost:$server_port$1$is_args$args; }
        location ~ ^/to/port(/.*) { return 302 http://$host:@other@$1$is_args$args; }
        location ~ ^/to/tls(/.*) { return 302 https://$host:@tls@$1$is_args$args; }
        location /basic/ { auth_basic "@realm@"; auth_basic_user_file @state@/passwords; }
        location /basic/slow/ { auth_basic "@realm@"; auth_basic_user_file @state@/passwords;
                                limit_rate 400k; }
        location /named/ { add_header Content-Disposition $disposition; }
        location /tagless/ { etag off; }
        location /slow/ { limit_rate 400k; }
        location /429/ { limit_req zone=soon; limit_req zone=never; limit_req_status 429;
                         add_header Retry-After $pause always; }
        location /503/ { limit_req zone=soon; limit_req zone=never; limit_req_status 503;
                         add_header Retry-After $pause always; }
    }
    server { listen 127.0.0.1:@mutual@ ssl; ssl_verify_client on; }
}
"""
APACHE = """@user@
ServerName localhost
Listen 127.0.0.1:@port@
ServerRoot @state@
DefaultRuntimeDir @state@
PidFile @state@/pid
ErrorLog @state@/errors
LoadModule mpm_event_module /usr/lib/apache2/modules/mod_mpm_event.so
LoadModule authn_core_module /usr/lib/apache2/modules/mod_authn_core.so
LoadModule authn_file_module /usr/lib/apache2/modules/mod_authn_file.so
LoadModule authz_core_module /usr/lib/apache2/modules/mod_authz_core.so
LoadModule authz_user_module /usr/lib/apache2/modules/mod_authz_user.so
LoadModule auth_basic_module /usr/lib/apache2/modules/mod_auth_basic.so
LoadModule auth_digest_module /usr/lib/apache2/modules/mod_auth_digest.so
LogFormat "{\\"t\\":\\"%q\\",\\"uri\\":\\"%U\\",\\"status\\":%>s}" lines
CustomLog @state@/log lines
DocumentRoot @root@
<Location /digest>
    AuthType Digest
    AuthName @realm@
    AuthUserFile @state@/digests
    Require valid-user
</Location>
"""
LIGHTTPD = """
server.document-root = "@root@"
server.bind = "127.0.0.1"
server.port = @port@
server.errorlog = "@state@/errors"
mimetype.assign = ("" => "application/octet-stream")
server.modules = ("mod_accesslog", "mod_auth", "mod_authn_file")
accesslog.filename = "@state@/log"
accesslog.format = "{\\"t\\":\\"%q\\",\\"uri\\":\\"%U\\",\\"status\\":%s}"
auth.backend = "htdigest"
auth.backend.htdigest.userfile = "@state@/digests"
auth.require = ("/digest" => ("method" => "digest", "realm" => "@realm@",
                               "require" => "valid-user"))
"""
TINYPROXY = "Port @port@\nListen 127.0.0.1\nLogLevel Critical\n"


def make_certificates(directory):
    """ca, server and client, each NAME.pem and NAME.key; `stranger` is an authority of its own."""
    def openssl(*words):
        subprocess.run(["openssl", *words], cwd=directory, check=True, capture_output=True)
    for name in ("ca", "stranger"):
        openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj",
                f"/CN={name}", "-keyout", f"{name}.key", "-out", f"{name}.pem")
    for name in ("server", "client"):
        (directory / "names").write_text("subjectAltName=IP:127.0.0.1,DNS:localhost")
        openssl("req", "-newkey", "rsa:2048", "-nodes", "-subj", f"/CN={name}", "-keyout",
                f"{name}.key", "-out", "request")
        openssl("x509", "-req", "-in", "request", "-CA", "ca.pem", "-CAkey", "ca.key", "-days",
                "2", "-CAcreateserial", "-extfile", "names", "-out", f"{name}.pem")


class Site(Server):
    """nginx, apache2 or lighttpd for the files below `root`; `names` are Content-Dispositions.
    Or tinyproxy."""

    def __init__(self, kind, root, state, names=()):
        self.names = names
        super().__init__(kind, root, state)

    def configure(self, _):
        text, words = {
            "nginx": (NGINX, ["nginx", "-e", self.state / "errors", "-c"]),
            "apache2": (APACHE, ["apache2", "-D", "FOREGROUND", "-f"]),
            "lighttpd": (LIGHTTPD, ["lighttpd", "-D", "-f"]),
            "tinyproxy": (TINYPROXY, ["tinyproxy", "-d", "-c"])}[self.kind]
        config = self.state / "config"
        self.command = [*words, config]
        if self.kind == "nginx":
            self.ports += [some_port() for _ in range(3)]
            self.other, self.tls, self.mutual = self.ports[1:]
        user = {"nginx": "user root;", "apache2": "User www-data\nGroup www-data"}
        quoted = [name.replace("\\", "\\\\").replace("'", "\\'") for name in self.names]
        values = {**vars(self), "realm": REALM,
                  "user": user.get(self.kind, "") if os.geteuid() == 0 else "",
                  "names": "".join(f"{i} '{name}';" for i, name in enumerate(quoted))}
        for name, value in values.items():
            text = text.replace(f"@{name}@", str(value))
        config.write_text(text)
        digest = hashlib.md5(f"{USER}:{REALM}:{PASSWORD}".encode()).hexdigest()
        (self.state / "digests").write_text(f"{USER}:{REALM}:{digest}\n")
        password = base64.b64encode(hashlib.sha1(PASSWORD.encode()).digest()).decode()
        (self.state / "passwords").write_text(f"{USER}:{{SHA}}{password}\n")
        if self.kind == "nginx":
            make_certificates(self.state)

    def requests(self, run):
        """The log's lines of a run that has ended, in their order. nginx has but one process, which
        has written them when it answers a later request; others have to be stopped first. A line
        that is just being written, of another run, may be read in part."""
        if self.kind == "nginx":
            later = http.client.HTTPConnection("127.0.0.1", self.port)
            later.request("GET", "/")
            later.getresponse().read()
            later.close()
        lines = map(json.loads, (self.state / "log").read_text().split("\n")[:-1])
        return [line for line in lines if line["t"].rpartition("t=")[2] == run]
