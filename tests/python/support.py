"""Python collaborators for the binding tests, and a scripted HTTP server."""
import contextlib
import http.server
import json
import threading
import time

from orvo_core.event import EventEmitter


class RecordingEmitter(EventEmitter):
    """A subclass of the bound emitter that records every event, into `events` if given. Its
    `len()` is 0: every object counts as true, so it still gets them."""

    def __init__(self, events=None):
        super().__init__()
        self.events = [] if events is None else events
        self.threads = set()

    def __len__(self):
        return 0

    async def emit(self, value, level, type):  # noqa: A002 - the contract's own name
        self.events.append((value, level, type))
        self.threads.add(threading.get_ident())


class DuckEmitter:
    """Any object with `async def emit` serves."""

    def __init__(self):
        self.events = []

    async def emit(self, value, level, type):  # noqa: A002
        self.events.append((value, level.name, type.name))


class TableInvoker:
    """Embeds the response as [1, 0]; a content as the vector its table gives."""

    def __init__(self, table):
        self.table = table

    async def invoke(self, text):
        return [1.0, 0.0] if isinstance(text, str) else [self.table[t] for t in text]


class RecordingProcessor:
    """Answers with `answer` (a value, or a function of the prompt map) and records each call."""

    def __init__(self, answer="answer"):
        self.answer = answer
        self.calls = []

    async def process(self, prompt_kwargs, *args, **kwargs):
        self.calls.append((prompt_kwargs, args, kwargs))
        return self.answer(prompt_kwargs) if callable(self.answer) else self.answer


def serve(test, reply):
    """An HTTP/1.1 server on a thread until `test` ends: `reply(path, request)` gives (status,
    content type, body), a body given as a list is sent a piece every 0.1 s; `requests` records
    (path, headers, request)."""

    class Handler(http.server.BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"

        def do_POST(self):
            request = json.loads(self.rfile.read(int(self.headers["Content-Length"])))
            server.requests.append((self.path, self.headers, request))
            status, content_type, body = reply(self.path, request)
            pieces = [body.encode()] if isinstance(body, str) else [piece.encode() for piece in body]
            self.send_response(status)
            self.send_header("Content-Type", content_type)
            self.send_header("Content-Length", str(sum(map(len, pieces))))
            self.end_headers()
            for piece in pieces:
                self.wfile.write(piece)
                self.wfile.flush()
                time.sleep(0 if isinstance(body, str) else 0.1)

        def handle(self):
            with contextlib.suppress(ConnectionError):  # the client may go first
                super().handle()

        def log_message(self, *args):
            pass

    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    server.daemon_threads = True
    server.requests = []
    server.url = "http://127.0.0.1:%d" % server.server_address[1]
    threading.Thread(target=server.serve_forever, daemon=True).start()
    test.addCleanup(server.server_close)
    test.addCleanup(server.shutdown)
    return server
