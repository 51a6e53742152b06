#!/usr/bin/env python3
# Replays drav-sim sessions (session.transcript) against the program on loopback,
# playing the AP: what it is sent, what it answers, what it prints, how it exits.
#   session.py DRAV_SIM TRANSCRIPT
import os
import re
import select
import signal
import socket
import subprocess
import sys
import time

sim_bin, transcript = sys.argv[1], sys.argv[2]
failures = 0


def fail(n, what):
    global failures
    failures += 1
    print(f'{transcript}:{n}: {what}')


def data(tokens):  # hex, each token may end in *N
    return b''.join(bytes.fromhex(t.partition('*')[0]) * int(t.partition('*')[2] or 1) for t in tokens)


class Session:
    def __init__(self, args):
        cmd = os.environ.get('TOVRIN_TEST_EMULATOR', '').split() + [sim_bin, '--bind', '127.0.0.1', '--port', '0'] + args
        self.p = subprocess.Popen(cmd, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.buf = b''
        self.ap = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.ap.bind(('127.0.0.1', 0))
        self.addr = '127.0.0.1:%d' % self.ap.getsockname()[1]
        m = re.fullmatch(r'# listening 127\.0\.0\.1:(\d+)', self.line() or '')
        self.sim = ('127.0.0.1', int(m.group(1))) if m else None

    def line(self):  # the next line of output without its timestamp; None at the end
        end = time.monotonic() + 5
        while b'\n' not in self.buf:
            if not select.select([self.p.stdout], [], [], max(0, end - time.monotonic()))[0]:
                return None
            chunk = os.read(self.p.stdout.fileno(), 4096)
            if not chunk:
                return None
            self.buf += chunk
        line, _, self.buf = self.buf.partition(b'\n')
        line = line.decode()
        # Every line starts with seconds.milliseconds in 8 columns.
        return line[9:] if re.match(r' *\d+\.\d{3} $', line[:9]) else 'NO TIMESTAMP: ' + line

    def end(self, n, status):
        try:
            got = self.p.wait(10)
        except subprocess.TimeoutExpired:
            self.p.kill()
            got = self.p.wait()
        if got != status:
            fail(n, f'exit status {got}, not {status}')
        # Nothing printed or sent beyond what the transcript expects.
        while (rest := self.line()) is not None:
            fail(n, 'unexpected line: ' + rest)
        self.ap.setblocking(False)
        try:
            fail(n, 'unexpected datagram: ' + self.ap.recv(65536).hex())
        except BlockingIOError:
            pass


s = None
for n, line in enumerate(open(transcript).read().splitlines(), 1):
    op, _, rest = line.partition(' ')
    if not line or op.startswith('#'):
        continue
    if op == '$':
        s = Session(rest.split())
        if not s.sim:
            fail(n, 'drav-sim did not say where it listens')
            break
    elif op == 'ap':
        s.ap.sendto(data(rest.split()), s.sim)
    elif op == 'in':
        s.p.stdin.write((rest + '\n').encode())
        s.p.stdin.flush()
    elif op == 'close':
        s.p.stdin.close()
    elif op == 'signal':
        s.p.send_signal(getattr(signal, 'SIG' + rest))
    elif op == '<':
        got = s.ap.recv(65536).hex() if select.select([s.ap], [], [], 5)[0] else None
        if got != data(rest.split()).hex():
            fail(n, f'the AP received {got}')
    elif op in ('|', '~'):
        got = s.line()
        text = rest.replace('<ap>', s.addr if op == '|' else re.escape(s.addr))
        if got is None or (got != text if op == '|' else not re.fullmatch(text, got)):
            fail(n, f'drav-sim printed {got!r}')
    elif op == '=':
        s.end(n, int(rest))
    else:
        fail(n, 'unknown directive ' + op)
sys.exit(1 if failures else 0)
