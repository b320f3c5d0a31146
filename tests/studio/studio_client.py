"""An HTTP client for the studio's tests, as a script would use the JSON
interface: one request per connection, JSON replies decoded, and the
session's token (from GET /api/session) sent in X-Ostrel-Token with every
request that changes something, as the studio's own page does."""
import http.client
import json
import socket

TOKEN_HEADER = "X-Ostrel-Token"
STATE_CHANGING = ("POST", "PUT", "PATCH", "DELETE")


class Client:
    def __init__(self, port, host="127.0.0.1"):
        self.port = port
        self.host = host
        self._token = None
        self.headers = {}  # of the last reply

    def token(self):
        """The session's token; "" when the studio gives none."""
        if self._token is None:
            status, _, data = self.request("GET", "/api/session", with_token=False)
            self._token = json.loads(data).get("token", "") if status == 200 else ""
        return self._token

    def request(self, method, path, body=None, content_type=None, headers=None, with_token=True, timeout=30):
        connection = http.client.HTTPConnection(self.host, self.port, timeout=timeout)
        all_headers = dict(headers or {})
        if content_type:
            all_headers["Content-Type"] = content_type
        if with_token and method in STATE_CHANGING and TOKEN_HEADER not in all_headers:
            all_headers[TOKEN_HEADER] = self.token()
        if isinstance(body, (dict, list)):
            body = json.dumps(body)
        try:
            connection.request(method, path, body=body, headers=all_headers)
            response = connection.getresponse()
            data = response.read()
            self.headers = {k.lower(): v for k, v in response.getheaders()}
        finally:
            connection.close()
        return response.status, response.getheader("Content-Type") or "", data

    def json(self, method, path, body=None, content_type="application/json", expect=200, **kwargs):
        status, ctype, data = self.request(method, path, body, content_type if body is not None else None, **kwargs)
        assert ctype.startswith("application/json"), (method, path, status, ctype, data[:200])
        value = json.loads(data)
        assert status == expect, (method, path, status, value)
        return value


def raw_connection(port, timeout=30):
    """A plain TCP connection to the studio, for requests sent by hand."""
    sock = socket.create_connection(("127.0.0.1", port), timeout=timeout)
    sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    return sock


def read_reply(sock):
    """Reads one HTTP reply (with Content-Length) from a raw connection;
    returns (status, body). Raises on a closed connection."""
    data = b""
    while b"\r\n\r\n" not in data:
        chunk = sock.recv(65536)
        if not chunk:
            raise ConnectionError("the studio closed the connection")
        data += chunk
    head, rest = data.split(b"\r\n\r\n", 1)
    lines = head.decode("latin-1").split("\r\n")
    status = int(lines[0].split()[1])
    length = 0
    for line in lines[1:]:
        name, _, value = line.partition(":")
        if name.strip().lower() == "content-length":
            length = int(value.strip())
    while len(rest) < length:
        chunk = sock.recv(65536)
        if not chunk:
            raise ConnectionError("the studio closed the connection mid-reply")
        rest += chunk
    return status, rest[:length]
