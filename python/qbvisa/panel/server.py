"""The panel's HTTP side: the page, its JSON routes and the event stream.

Safety: every request that switches or changes a setting must carry the
panel's random token (header ``X-Panel-Token``) and come from the panel's
own page (a cross-site ``Origin``, ``Referer`` or ``Sec-Fetch-Site`` is
refused; the custom header alone keeps a foreign page's simple form posts
out). Requests naming another host than the panel's address are refused, so
a foreign name resolving to 127.0.0.1 reaches nothing. A malformed request
gets a 4xx and changes nothing.
"""

from __future__ import annotations

import hmac
import json
import re
import threading
from http import HTTPStatus
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path
from typing import Any, Dict, List, Optional, Tuple
from urllib.parse import urlsplit

from .. import errors
from ..points import Point, normalise
from .rack import Json, Station, error_json

STATIC = Path(__file__).resolve().parent / "static"
_FILES = {"/": ("index.html", "text/html; charset=utf-8"),
          "/panel.js": ("panel.js", "text/javascript; charset=utf-8"),
          "/panel.css": ("panel.css", "text/css; charset=utf-8")}
_MOST_BODY = 1 << 20
_MOST_POINTS = 40000
_KEEPALIVE = 15.0
_SECURITY_HEADERS = {
    "Content-Security-Policy": "default-src 'self'; img-src 'self' data:; "
                               "frame-ancestors 'none'; base-uri 'none'; form-action 'none'",
    "X-Content-Type-Options": "nosniff",
    "Referrer-Policy": "same-origin",
    "Cache-Control": "no-store",
}
_CHASSIS = re.compile(r"^/api/chassis/(\d{1,4})$")


class Refused(Exception):
    """A request the panel does not carry out (status, message)."""

    def __init__(self, status: HTTPStatus, message: str) -> None:
        super().__init__(message)
        self.status = status


class PanelServer(ThreadingHTTPServer):
    daemon_threads = True
    block_on_close = False

    def __init__(self, address: Tuple[str, int], station: Station, token: str,
                 hosts: Optional[List[str]]) -> None:
        super().__init__(address, Handler)
        self.station = station
        self.token = token
        # Host names the page may be reached by; None: any (--listen given).
        self.hosts = hosts

    def handle_error(self, request: Any, client_address: Any) -> None:
        """Nothing in the package prints; a failed request only ends its
        connection."""


def _points(value: Any, what: str) -> List[Point]:
    if value is None:
        return []
    if isinstance(value, list):
        value = [tuple(p) if isinstance(p, list) else p for p in value]
    try:
        points = normalise(value)
    except errors.Error as exc:
        raise Refused(HTTPStatus.BAD_REQUEST, f"{what}: {exc}") from None
    if len(points) > _MOST_POINTS:
        raise Refused(HTTPStatus.REQUEST_ENTITY_TOO_LARGE, f"{what}: too many points")
    return points


def _chassis_index(body: Json) -> int:
    index = body.get("chassis")
    if isinstance(index, bool) or not isinstance(index, int):
        raise Refused(HTTPStatus.BAD_REQUEST, "chassis must be the index of a chassis")
    return index


class Handler(BaseHTTPRequestHandler):
    server: PanelServer
    protocol_version = "HTTP/1.1"
    timeout = 30.0   # a request whose body never comes frees its thread
    server_version = "qbvisa-panel"
    sys_version = ""

    def log_message(self, format: str, *args: Any) -> None:
        """Nothing in the package prints."""

    # -- replies ---------------------------------------------------------
    def _send(self, status: int, body: bytes, kind: str) -> None:
        self.send_response(status)
        self.send_header("Content-Type", kind)
        self.send_header("Content-Length", str(len(body)))
        for name, value in _SECURITY_HEADERS.items():
            self.send_header(name, value)
        self.end_headers()
        if self.command != "HEAD":
            self.wfile.write(body)

    def _json(self, status: int, value: Any) -> None:
        self._send(status, json.dumps(value).encode(), "application/json")

    def _refuse(self, status: HTTPStatus, message: str) -> None:
        self._json(status, {"error": {"code": None, "text": message, "detail": ""}})

    # -- checks ----------------------------------------------------------
    def _check_host(self) -> None:
        hosts = self.server.hosts
        if hosts is None:
            return
        host = self.headers.get("Host", "")
        name = host.rsplit(":", 1)[0] if not host.endswith("]") else host
        if name.strip("[]").lower() not in hosts:
            raise Refused(HTTPStatus.FORBIDDEN, f"host {host!r} is not this panel")

    def _check_origin(self) -> None:
        """The request must come from a page of this panel."""
        site = self.headers.get("Sec-Fetch-Site")
        if site is not None and site not in ("same-origin", "none"):
            raise Refused(HTTPStatus.FORBIDDEN, "cross-site request refused")
        own = self.headers.get("Host", "")
        for header in ("Origin", "Referer"):
            value = self.headers.get(header)
            if value is None:
                continue
            parts = urlsplit(value)
            if parts.scheme != "http" or parts.netloc != own:
                raise Refused(HTTPStatus.FORBIDDEN, f"{header} {value!r} is not this panel")

    def _check_token(self) -> None:
        given = self.headers.get("X-Panel-Token", "")
        if not hmac.compare_digest(given.encode(), self.server.token.encode()):
            raise Refused(HTTPStatus.FORBIDDEN, "missing or wrong token: open the address "
                                                "the panel printed at start")

    def _body(self) -> Json:
        kind = self.headers.get("Content-Type", "").split(";")[0].strip().lower()
        if kind != "application/json":
            raise Refused(HTTPStatus.UNSUPPORTED_MEDIA_TYPE, "send application/json")
        try:
            length = int(self.headers.get("Content-Length", ""))
        except ValueError:
            raise Refused(HTTPStatus.LENGTH_REQUIRED, "Content-Length missing") from None
        if not 0 <= length <= _MOST_BODY:
            raise Refused(HTTPStatus.REQUEST_ENTITY_TOO_LARGE, "body too large")
        raw = self.rfile.read(length)
        try:
            body = json.loads(raw)
        except (ValueError, UnicodeDecodeError):
            raise Refused(HTTPStatus.BAD_REQUEST, "body is not JSON") from None
        if not isinstance(body, dict):
            raise Refused(HTTPStatus.BAD_REQUEST, "body must be a JSON object")
        return body

    # -- routes ----------------------------------------------------------
    def do_GET(self) -> None:
        self._handle(self._get)

    def do_HEAD(self) -> None:
        self._handle(self._get)

    def do_POST(self) -> None:
        self._handle(self._post)

    def _handle(self, route: Any) -> None:
        try:
            self._check_host()
            route(urlsplit(self.path).path)
        except Refused as exc:
            self.close_connection = True
            self._refuse(exc.status, str(exc))
        except KeyError:
            self._refuse(HTTPStatus.NOT_FOUND, "no such chassis")
        except (BrokenPipeError, ConnectionResetError, TimeoutError):
            self.close_connection = True
        except Exception as exc:  # the panel's own fault: say so, keep serving
            self.close_connection = True
            try:
                self._json(HTTPStatus.INTERNAL_SERVER_ERROR, {"error": error_json(exc)})
            except OSError:
                pass

    def _get(self, path: str) -> None:
        station = self.server.station
        if path in _FILES:
            name, kind = _FILES[path]
            self._send(HTTPStatus.OK, (STATIC / name).read_bytes(), kind)
        elif path == "/api/rack":
            self._json(HTTPStatus.OK, station.rack())
        elif _CHASSIS.match(path):
            index = int(_CHASSIS.match(path).group(1))  # type: ignore[union-attr]
            self._json(HTTPStatus.OK, station.snapshot(index))
        elif path == "/api/events" and self.command == "GET":
            self._events()
        else:
            raise Refused(HTTPStatus.NOT_FOUND, f"no route {path}")

    def _post(self, path: str) -> None:
        routes = {"/api/switch": self._switch, "/api/open-all": self._open_all,
                  "/api/settings": self._settings}
        if path not in routes:
            raise Refused(HTTPStatus.NOT_FOUND, f"no route {path}")
        self._check_origin()
        self._check_token()
        body = self._body()
        try:
            result = routes[path](body)
        except errors.Error as exc:
            # The library refused: nothing changed; the page shows why.
            self._json(HTTPStatus.CONFLICT, {"error": error_json(exc)})
            return
        self._json(HTTPStatus.OK, result)

    def _switch(self, body: Json) -> Json:
        index = _chassis_index(body)
        close, release = _points(body.get("close"), "close"), _points(body.get("open"), "open")
        if not close and not release:
            raise Refused(HTTPStatus.BAD_REQUEST, "name points to close or open")
        return self.server.station.switch(index, close, release)

    def _open_all(self, body: Json) -> Json:
        return self.server.station.open_all(_chassis_index(body))

    def _settings(self, body: Json) -> Json:
        index = _chassis_index(body)
        mode = body.get("control_mode")
        if mode not in ("local", "remote") or set(body) - {"chassis", "control_mode"}:
            raise Refused(HTTPStatus.BAD_REQUEST,
                          "settings: control_mode must be \"local\" or \"remote\"")
        return self.server.station.set_control_mode(index, str(mode))

    def _events(self) -> None:
        """Server-sent events: the rack at once, then every chassis that
        changed, as it changes."""
        station = self.server.station
        self.send_response(HTTPStatus.OK)
        self.send_header("Content-Type", "text/event-stream")
        self.send_header("Cache-Control", "no-store")
        self.send_header("X-Content-Type-Options", "nosniff")
        self.end_headers()
        self.close_connection = True
        version = station.version
        self._event("rack", station.rack())
        for index in range(len(station.rack()["chassis"])):
            self._event("chassis", station.snapshot(index))
        while not station.stopped and not getattr(self.server, "closing", False):
            now = station.wait(version, _KEEPALIVE)
            if now == version:
                self.wfile.write(b": keep-alive\n\n")
                self.wfile.flush()
                continue
            for snapshot in station.changed_since(version):
                self._event("chassis", snapshot)
            version = now

    def _event(self, name: str, data: Json) -> None:
        self.wfile.write(f"event: {name}\ndata: {json.dumps(data)}\n\n".encode())
        self.wfile.flush()


def start(station: Station, host: str, port: int, token: str,
          any_host: bool) -> Tuple[PanelServer, threading.Thread]:
    hosts = None if any_host else ["127.0.0.1", "localhost", host.lower()]
    server = PanelServer((host, port), station, token, hosts)
    thread = threading.Thread(target=server.serve_forever, name="qbvisa-panel-http",
                              kwargs={"poll_interval": 0.2}, daemon=True)
    thread.start()
    return server, thread
