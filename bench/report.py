#!/usr/bin/env python3
"""Turns the raw lines scripts/bench collected into bench/results.md and the
gnuplot input of bench/rates.png. With --smoke it only checks that every
figure is present and writes the report to the given (temporary) directory.

usage: report.py RAW OUTDIR [--smoke]
"""
import re
import statistics as st
import sys
from collections import defaultdict

raw_path, out = sys.argv[1], sys.argv[2]
smoke = "--smoke" in sys.argv
lines = [l.rstrip("\n") for l in open(raw_path) if l.strip()]

missing = []


def need(cond, what):
    if not cond:
        missing.append(what)
    return cond


def med(xs):
    return st.median(xs) if xs else float("nan")


def pct(xs, p):
    xs = sorted(xs)
    if not xs:
        return float("nan")
    return xs[min(len(xs) - 1, int(round(p * (len(xs) - 1))))]


def kv(s):
    return {k: v for k, v in re.findall(r"(\w+)=([^\s|]+)", s)}


machine = next((l[len("machine "):] for l in lines if l.startswith("machine ")), "?")

# ---- rates
rates = defaultdict(list)  # (dir, mode, size) -> [(value, baseline)]
delivered = defaultdict(lambda: [0, 0])  # (mode, size) -> [delivered, sent], downlink
for l in lines:
    if l.startswith("rate "):
        f = l.split()
        d, mode, size, v, b = f[1:6]
        rates[(d, mode, int(size))].append((float(v), float(b)))
        if len(f) > 6:
            got, sent = map(int, f[6].split("/"))
            delivered[(mode, int(size))][0] += got
            delivered[(mode, int(size))][1] += sent
batched = defaultdict(list)  # (dir, mode, size) -> [rate], in the order of rates
for l in lines:
    if l.startswith("batched "):
        _, d, mode, size, v = l.split()
        batched[(d, mode, int(size))].append(float(v))
SIZES = sorted({k[2] for k in rates})
need(len(SIZES) == 4, "rates for four sizes")


def rate_row(d, mode, size):
    r = rates.get((d, mode, size), [])
    need(r, f"rate {d} {mode} {size}")
    v = med([x for x, _ in r])
    b = med([y for _, y in r])
    ratio = med([x / y for x, y in r]) if r else float("nan")
    return v, b, ratio, len(r)


def batched_row(d, mode, size):
    """The batched baseline's median and the median of the daemon's per-repetition ratio to it."""
    r, bb = rates.get((d, mode, size), []), batched.get((d, mode, size), [])
    need(bb and len(bb) == len(r), f"batched baseline {d} {mode} {size}")
    return med(bb), med([x / y for (x, _), y in zip(r, bb)]) if bb else float("nan")


# ---- system calls per message (strace -c)
sc = {}  # (dir, size) -> (n, total, {name: calls})
for l in lines:
    if l.startswith("sc "):
        _, d, size, n, path = l.split()
        calls = {}
        for x in open(path):
            f = x.split()
            # "% time seconds usecs/call calls [errors] syscall"; the total row ends in "total"
            if len(f) >= 5 and re.match(r"^[0-9.]+$", f[0]) and f[-1] != "total":
                calls[f[-1]] = int(f[3])
        sc[(d, int(size))] = (int(n), sum(calls.values()), calls)
need(len(sc) == 4, "system-call counts")


# ---- memory
mem_idle = next((int(l.split()[2]) for l in lines if l.startswith("mem idle ")), None)
need(mem_idle is not None, "idle memory")
mem_after = next((int(l.split()[2]) for l in lines if l.startswith("mem after-runs ")), None)
queued = {}
for l in lines:
    if l.startswith("mem queued "):
        _, _, size, n, base, full = l.split()
        queued[int(size)] = (int(n), int(base), int(full))
need(len(queued) == 2, "queued-message memory")

# ---- heap calls
alloc = {}
for l in lines:
    if l.startswith("alloc "):
        head, a, b = re.match(r"(alloc \S+ \S+ \d+) (.*) \| (.*)", l).groups()
        _, mode, d, n = head.split()
        ka, kb = kv(a), kv(b)
        calls = sum(int(kb[k]) - int(ka[k]) for k in ("malloc", "calloc", "realloc"))
        frees = int(kb["free"]) - int(ka["free"])
        alloc[(mode, d)] = (int(n), calls, frees)
need(len(alloc) == 4, "heap calls per message")

# ---- timers
eloop = next((kv(l) for l in lines if l.startswith("eloop ")), None)
need(eloop is not None, "event-loop timer accuracy")
ka_dev, retx_dev = [], []
for l in lines:
    if l.startswith("timer ka-log "):
        _, _, path, period = l.split()
        t = [int(x) for x in open(path).read().split()]
        # The first two gaps belong to the change of rate; after them every
        # keepalive is due one period after the previous one was sent.
        gaps = [(b - a) / 1e6 for a, b in zip(t, t[1:])][2:]
        ka_dev = [abs(g - float(period)) for g in gaps]
    if l.startswith("timer data-log "):
        path = l.split()[2]
        rows = [x.split() for x in open(path).read().splitlines() if x.strip()]
        t = [int(r[0]) for r in rows]
        # Transmission k+1 is due 2^k s after transmission k (1, 2, 4, 8 s).
        retx_dev = [abs((b - a) / 1e6 - 1000.0 * (1 << k)) for k, (a, b) in enumerate(zip(t, t[1:]))]
need(len(ka_dev) >= 3, "keepalive deviations")
need(len(retx_dev) >= 1, "retransmission deviations")

# ---- callgrind
cg = {}
TOTAL_RE = re.compile(r"^\s*([\d,]+) \(100\.0%\)\s+([\d,.]+|\.)\s.*PROGRAM TOTALS")
FN_RE = re.compile(r"^\s*([\d,]+) \(\s*[\d.]+%\)\s+(?:[\d,]+ \(\s*[\d.]+%\)|\.)\s.*?\s{2}(\S.*?):(.+?) \[(.+)\]\s*$")


def category(fn, obj):
    f = fn.lower()
    if "libcrypto" in obj or "aes" in f or "md5" in f or "evp_" in f:
        return "crypto"
    if re.search(r"memcpy|memmove|memset|mempcpy", f):
        return "copies"
    if re.search(r"malloc|free|_int_|tcache|sysmalloc|brk", f):
        return "heap"
    if re.search(r"printf|_io_|fflush|fwrite|vfprintf|__printf|_itoa|strchrnul|ftime|log_write|fputs|buffered|__mpn|outstring|__strchr|_fitoa|read_int|group_number|__find_specmb|__parse_one|vk_os_ftime|clock_gettime|__gettimeofday|strlen|__libc_write|new_do_write", f):
        return "logging"
    if re.search(r"sendto|recvfrom|epoll|__libc_send|__libc_recv|syscall|__sendto|__recvfrom|sigprocmask", f):
        return "syscalls"
    if "vk_eloop" in f or "eloop" in obj or "run_due" in f or "wait_events" in f or "dispatch" in f or "std::" in f:
        return "event loop"
    if "getenv" in f or "vk_ipc" in f or "ipc.cpp" in obj or "make_addr" in f or "sender_path" in f or "strnlen" in f or "memchr" in f or "check_envelope" in f:
        return "local IPC"
    if "tovrin" in obj or "tovrin" in f:
        return "daemon logic"
    return "other"


for l in lines:
    if l.startswith("cg "):
        _, level, d, n, excl, incl = l.split()
        n = int(n)
        total, sysc, fns = None, None, []
        for x in open(excl):
            m = TOTAL_RE.match(x)
            if m:
                total = int(m.group(1).replace(",", ""))
                sysc = m.group(2)
                continue
            m = FN_RE.match(x)
            if m and total is not None:
                ir = int(m.group(1).replace(",", ""))
                if ir >= total:
                    continue  # a frame that was on the stack when counting began: main and below
                fns.append((ir, m.group(3).strip(), m.group(4)))
        need(total, f"callgrind totals level {level} {d}")
        sysn = 0 if sysc in (None, ".") else int(sysc.replace(",", ""))
        cats = defaultdict(int)
        for ir, fn, obj in fns:
            cats[category(fn, obj)] += ir
        cg[(int(level), d)] = (n, total or 0, sysn, fns, cats)
need(len(cg) == 4, "callgrind runs")

# ---- crypto
cr = defaultdict(list)
osl = defaultdict(list)
for l in lines:
    if l.startswith("CRYPTO "):
        k = kv(l)
        cr[k["op"]].append((int(k["bytes"]), float(k["ns"])))
    if l.startswith("openssl "):
        parts = l.split()
        if len(parts) >= 3 and parts[2] and not parts[2].startswith("rep="):
            osl[parts[1]].append(float(parts[2]))
need(all(cr.get(o) for o in ("protect", "open")), "crypto timings")
need(all(osl.get(o) for o in ("md5", "aes_enc", "aes_dec")), "openssl speed figures")

if missing:
    print("report: missing figures: " + ", ".join(missing), file=sys.stderr)
    sys.exit(1)

# ---------------------------------------------------------------- the report
T = []  # (target, value, met)
md = []
w = md.append


def f0(x):
    return f"{x:,.0f}"


w("# tovrin benchmark results\n")
w("Written by `scripts/bench` (run it as root from the top of the tree; it takes a few minutes). "
  "Every rate is measured side by side with its baseline in the same run, repetition after "
  "repetition; the tables quote medians, and the ratio is the median of the per-repetition ratios.\n")
w(f"Machine: {machine}.\n")
w("The daemon runs at log level 1 (notes only) except where level 4 is named; the controller is "
  "`bench-ctl` in its own network namespace, the local endpoint `bench-local`, joined to the "
  "daemon's namespace by a veth pair. \"16 KB\" is 16304 data bytes, the most one local IPC "
  "message carries.\n")

for d, title, how in (
        ("up", "Uplink rate",
         "Messages per second from a local endpoint through the daemon to a controller that "
         "acknowledges at once, counted when the outcome answer is back at the endpoint (at most 8 "
         "unanswered, so the daemon always has the next message queued). Baseline: `bench-udp`, the "
         "same datagrams (ceil(payload/1024), each with its 12-byte header) from the AP namespace to "
         "the controller's and a 12-byte answer, one message at a time, one `sendto` per datagram; "
         "the batched baseline sends each message's datagrams in one `sendmmsg` and its server "
         "drains them with `recvmmsg`: what the kernel allows without segmentation offload."),
        ("down", "Downlink rate",
         "Messages per second from the controller, each sent after the previous one's "
         "acknowledgement, delivered to a listening local endpoint (every one counted and its "
         "content checked). Baseline: `bench-udp` in the other direction.")):
    w(f"## {title}\n")
    w(how + "\n")
    w("| size | mode | messages/s | baseline/s | ratio | target | batched/s | ratio | target | reps |" + (" delivered |" if d == "down" else ""))
    w("|---:|---|---:|---:|---:|---:|---:|---:|---:|---:|" + ("---:|" if d == "down" else ""))
    for mode in ("plain", "enc"):
        for s in SIZES:
            v, b, ratio, n = rate_row(d, mode, s)
            bb, bratio = batched_row(d, mode, s)
            tgt = 1.0 if mode == "plain" else (0.8 if s == max(SIZES) else None)
            btgt = 0.8 if mode == "plain" and s == max(SIZES) else None
            tt = f"≥ {tgt}" if tgt else "–"
            btt = f"≥ {btgt}" if btgt else "–"
            extra = ""
            if d == "down":
                g, t = delivered[(mode, s)]
                extra = f" {g}/{t} |"
            w(f"| {s} | {mode} | {f0(v)} | {f0(b)} | {ratio:.2f} | {tt} | {f0(bb)} | {bratio:.2f} | {btt} | {n} |" + extra)
            if tgt:
                T.append((f"{title.lower()}, {mode}, {s} B: ratio ≥ {tgt}", f"{ratio:.2f}", ratio >= tgt))
            if btgt:
                T.append((f"{title.lower()}, {mode}, {s} B: ratio to the batched baseline ≥ {btgt}", f"{bratio:.2f}", bratio >= btgt))
    w("")

w("![rates](rates.png)\n")

# The callgrind runs, in the order of every table: each log level, up then down.
CG_RUNS = [(lvl, d) for lvl in (1, 4) for d in ("up", "down")]
w("## Cost per message (instructions, callgrind)\n")
w("The daemon runs under `valgrind --tool=callgrind --collect-systime=nsec`; the counters are "
  "zeroed (`callgrind_control -z`) once the link is up, the messages (16 data bytes, plain) are "
  "relayed, and the counters dumped. Everything the daemon's one thread executes in user space "
  "is counted, event loop included; kernel work is not (system calls are counted by strace, "
  "below: under valgrind the clock reads are system calls too, as it has no vDSO). "
  "Repeatable on a noisy machine: the count does not depend on timing.\n")
w("| direction | log level | messages | instructions/message | target |")
w("|---|---:|---:|---:|---:|")
for lvl, d in CG_RUNS:
    n, tot, sysn, _, _ = cg[(lvl, d)]
    want = {(1, "up"): 1600, (1, "down"): 800}.get((lvl, d))
    w(f"| {d} | {lvl} | {n} | {f0(tot / n)} | {'≤ ' + f0(want) if want else '–'} |")
    want = {(1, "up"): 1600, (1, "down"): 800}.get((lvl, d))
    if want:
        T.append((f"instructions per 16-byte message, {d}, level 1: ≤ {want:,}", f0(tot / n), tot / n <= want))
w("")

w("## System calls per message (strace)\n")
w("`strace -c -f` attached to the daemon once the link is up, detached after the messages (plain, "
  "log level 1); every call the daemon makes is counted, keepalives in the interval included. "
  "Up: from `bench-local` to the controller and the outcome back; down: from the controller to "
  "a listening endpoint.\n")
w("| direction | size | messages | calls/message | target | calls/message, by call |")
w("|---|---:|---:|---:|---:|---|")
SC_TARGETS = {("up", 16): 6, ("down", 16): 5, ("up", 16304): 8, ("down", 16304): 10}
for (d, size), want in SC_TARGETS.items():
    n, tot, calls = sc[(d, size)]
    by = ", ".join(f"{k} {v / n:.2f}" for k, v in sorted(calls.items(), key=lambda kv: -kv[1]) if v / n >= 0.01)
    w(f"| {d} | {size} | {n} | {tot / n:.2f} | ≤ {want} | {by} |")
    T.append((f"system calls per {size}-byte message, {d}: ≤ {want}", f"{tot / n:.2f}", tot / n <= want))
w("")
CATS = ["syscalls", "copies", "crypto", "logging", "heap", "local IPC", "event loop", "daemon logic", "other"]
w("Where the instructions go, per message (self cost of every function, grouped):\n")
w("| group | " + " | ".join(f"{d} L{l}" for l, d in CG_RUNS) + " |")
w("|---|" + "---:|" * 4)
for c in CATS:
    w(f"| {c} | " + " | ".join(f0(cg[(l, d)][4].get(c, 0) / cg[(l, d)][0]) for l, d in CG_RUNS) + " |")
w("")
for lvl, d in CG_RUNS:
    n, tot, _, fns, _ = cg[(lvl, d)]
    w(f"<details><summary>{d}, level {lvl}: the functions, instructions per message</summary>\n")
    w("| instructions/msg | function | group |")
    w("|---:|---|---|")
    for ir, fn, obj in sorted(fns, reverse=True)[:25]:
        if ir / n < 5:
            break
        name = re.sub(r"\(.*", "", fn)[:70]
        w(f"| {ir / n:,.0f} | `{name}` | {category(fn, obj)} |")
    w("\n</details>\n")

w("## Heap calls per message (log level 1)\n")
w("The daemon runs with a small `LD_PRELOAD` counter of malloc/calloc/realloc/free "
  "(`bench/malloc_count.cpp`); SIGRTMIN+2 makes it write its totals, taken before and after "
  "each batch. Chosen over memcheck/dhat because it counts exactly the calls, costs nothing "
  "measurable and runs at full speed over thousands of messages.\n")
w("| mode | direction | messages | heap calls | frees | per message | target |")
w("|---|---|---:|---:|---:|---:|---|")
for mode in ("plain", "enc"):
    for d in ("up", "down"):
        n, calls, frees = alloc[(mode, d)]
        want = n if d == "up" else 0
        w(f"| {mode} | {d} | {n} | {calls} | {frees} | {calls / n:.2f} | ≤ {want} |")
        T.append((f"heap calls, {mode} {d}link: ≤ {want} for {n} messages", str(calls), calls <= want))
w("")

w("## Payload protection (16 KB)\n")
w("`bench-crypto` times the daemon's own `tovrin_protect_payload` (MD5 of the data, then "
  "AES-128-CBC encryption into the send buffer) and `tovrin_open_payload` (decryption, then MD5 "
  "and its check) on a 16384-byte payload (48-byte header, 16336 bytes protected). Baseline: "
  "`openssl speed -evp md5`, `-evp aes-128-cbc` and `-decrypt -evp aes-128-cbc` with 16384-byte "
  "buffers, scaled to the same 16336 bytes, digest plus cipher.\n")
bytes_ = cr["protect"][0][0]
md5r, encr, decr = med(osl["md5"]), med(osl["aes_enc"]), med(osl["aes_dec"])
w("| operation | tovrin µs | openssl speed µs | ratio | target |")
w("|---|---:|---:|---:|---:|")
for op, parts in (("protect", (md5r, encr)), ("open", (decr, md5r))):
    ours = med([ns for _, ns in cr[op]]) / 1000
    base = sum(bytes_ / r for r in parts) * 1e6
    ratio = ours / base
    w(f"| {op} (MD5 + AES-CBC) | {ours:.1f} | {base:.1f} | {ratio:.2f} | ≤ 1.25 |")
    T.append((f"crypto {op} 16 KB: ≤ 1.25 × openssl speed", f"{ratio:.2f}", ratio <= 1.25))
for op, r in (("md5", md5r), ("aes_enc", encr), ("aes_dec", decr)):
    ours = med([ns for _, ns in cr[op]]) / 1000
    w(f"| {op} alone | {ours:.1f} | {bytes_ / r * 1e6:.1f} | {ours / (bytes_ / r * 1e6):.2f} | – |")
w("")

w("## Memory\n")
w("Resident set (VmRSS) of the daemon at log level 1, link up, nothing in flight; then with "
  "messages queued behind an unacknowledged head (the controller stops acknowledging).\n")
w("| figure | value | target |")
w("|---|---:|---|")
w(f"| idle resident memory | {mem_idle} KiB | < 4096 KiB |")
T.append(("idle resident memory < 4 MiB", f"{mem_idle} KiB", mem_idle < 4096))
if mem_after:
    w(f"| resident after all rate runs | {mem_after} KiB | – |")
for s, (n, base, full) in sorted(queued.items()):
    per = (full - base) * 1024 / n
    w(f"| {n} queued messages of {s} B: growth per message | {per:,.0f} B | ≤ 17408 B |")
    T.append((f"{n} queued {s}-byte messages ≤ 17 KB each", f"{per:,.0f} B", per <= 17408))
w("")

w("## Timer accuracy\n")
w("Under load: a busy process on the other core and downlink messages at full rate. Keepalive: "
  "the rate set to 500 (100 ms); the controller stamps each request's arrival and the deviation "
  "is the gap minus 100 ms. Retransmission: one message never acknowledged, sent again 1, 2, 4 "
  "and 8 s after the previous transmission; the deviation is the gap minus that delay. The event "
  "loop alone (`bench-eloop`, a 5 ms timeout re-armed, loopback traffic alongside) under the same load.\n")
w("| timer | samples | median | 99th percentile | max | target |")
w("|---|---:|---:|---:|---:|---|")
w(f"| keepalive (daemon) | {len(ka_dev)} | {med(ka_dev):.3f} ms | {pct(ka_dev, .99):.3f} ms | {max(ka_dev):.3f} ms | median < 1 ms, p99 < 5 ms |")
w(f"| retransmission (daemon) | {len(retx_dev)} | {med(retx_dev):.3f} ms | {pct(retx_dev, .99):.3f} ms | {max(retx_dev):.3f} ms | same |")
w(f"| event loop, 5 ms | {eloop['n']} | {float(eloop['median_us']) / 1000:.3f} ms | {float(eloop['p99_us']) / 1000:.3f} ms | {float(eloop['max_us']) / 1000:.3f} ms | – |")
alltimer = ka_dev + retx_dev
T.append(("timer deviation median < 1 ms", f"{med(alltimer):.3f} ms", med(alltimer) < 1))
T.append(("timer deviation p99 < 5 ms", f"{pct(alltimer, .99):.3f} ms", pct(alltimer, .99) < 5))
w("")

w("## Targets\n")
w("| target | measured | met |")
w("|---|---:|---|")
for t, v, ok in T:
    w(f"| {t} | {v} | {'yes' if ok else '**no**'} |")
w("")
try:
    w(open(__file__.replace("report.py", "analysis.md")).read())
except OSError:
    pass

open(f"{out}/results.md", "w").write("\n".join(md) + "\n")

# ---- plot input
with open(f"{out}/rates.dat", "w") as f:
    f.write("# size up_plain up_plain_base up_enc up_enc_base down_plain down_plain_base down_enc down_enc_base\n")
    for s in SIZES:
        row = [s]
        for d in ("up", "down"):
            for mode in ("plain", "enc"):
                v, b, _, _ = rate_row(d, mode, s)
                row += [round(v, 1), round(b, 1)]
        f.write(" ".join(map(str, row)) + "\n")
with open(f"{out}/rates.gp", "w") as f:
    f.write(f"""set terminal pngcairo size 1100,460 font ',10'
set output '{out}/rates.png'
set multiplot layout 1,2 title 'tovrin message rates against a UDP request/response baseline ({machine.split(';')[0]})'
set logscale x 2
set logscale y
set xlabel 'data bytes per message'
set ylabel 'messages per second'
set key bottom left
set grid
set xtics ('16' 16, '1 K' 1024, '4 K' 4096, '16 K' 16304)
set title 'uplink (local endpoint -> controller)'
plot '{out}/rates.dat' u 1:2 w lp lw 2 pt 7 t 'plain', '' u 1:3 w lp dt 2 pt 6 t 'baseline (plain sizes)', \\
     '' u 1:4 w lp lw 2 pt 5 t 'encrypted', '' u 1:5 w lp dt 2 pt 4 t 'baseline (encrypted sizes)'
set title 'downlink (controller -> local endpoint)'
plot '{out}/rates.dat' u 1:6 w lp lw 2 pt 7 t 'plain', '' u 1:7 w lp dt 2 pt 6 t 'baseline (plain sizes)', \\
     '' u 1:8 w lp lw 2 pt 5 t 'encrypted', '' u 1:9 w lp dt 2 pt 4 t 'baseline (encrypted sizes)'
unset multiplot
""")

# A short summary for the console and the README.
print("headline:")
for d in ("up", "down"):
    for mode in ("plain",):
        print("  " + d + " " + mode + ": " + ", ".join(
            f"{s} B {f0(rate_row(d, mode, s)[0])}/s ({rate_row(d, mode, s)[2]:.2f})" for s in SIZES))
print(f"  targets met: {sum(1 for _, _, ok in T if ok)} of {len(T)}")
for t, v, ok in T:
    if not ok:
        print(f"  missed: {t}: {v}")
