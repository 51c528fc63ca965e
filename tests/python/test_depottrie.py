# The depottrie module against a plain model on random tables of both
# families, a reader following the depottrie tool's load, refusals, and the
# installed module. ctest runs it with the build's module on PYTHONPATH.
import ipaddress as ip, os, random, subprocess, sys, time
from concurrent.futures import ThreadPoolExecutor
import depottrie, pytest

RESERVED = {ip.ip_network(n) for n in ("0.0.0.0/32", "0.0.0.0/31", "255.255.255.255/32", "::/128", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/128")}
key = lambda n: (n.version, int(n.network_address), n.prefixlen)

def random_net(rng, v6):  # around a few bases, so that prefixes nest
    bits = 128 if v6 else 32
    base = rng.choice([0x20010DB8 << 96, 0xFFFF << 112, rng.getrandbits(128)] if v6 else [0x0A000000, 0xFFFFFF00, rng.getrandbits(32)])
    return ip.ip_network((base ^ rng.getrandbits(rng.randrange(bits // 2, bits)), rng.randrange(bits + 1)), strict=False)

def longest_first(model, q):
    return [(s, model[s]) for s in (q.supernet(new_prefix=n) for n in range(q.prefixlen, -1, -1)) if s in model]

def test_answers_match_a_plain_model(tmp_path):
    rng, model = random.Random(7), {}
    with depottrie.open_writer("t", root=tmp_path) as w, depottrie.open_reader("t", root=tmp_path, prefixes="ipaddress") as r:
        for i in range(3000):
            n = random_net(rng, i % 3 == 0)
            if n in RESERVED: continue
            if i % 4 == 3 and model: assert w.erase(str(n := rng.choice(list(model)))) and model.pop(n) is not None
            else: assert w.insert(n, i) == (n not in model); model[n] = i
        every = sorted(model.items(), key=lambda kv: key(kv[0]))
        assert list(r) == every and len(r) == len(model) and [ip.ip_network(p) for p, _ in w] == [n for n, _ in every]
        hosts = [n.network_address + rng.getrandbits(n.max_prefixlen - n.prefixlen) for n in rng.sample(list(model), 150)]
        queries = hosts + [random_net(rng, i % 2) for i in range(150)] + [ip.ip_network("::/0"), ip.ip_network("255.255.255.255/32")]
        assert r.lookup(queries) == r.lookup(map(str, queries)) == [r.lookup(q) for q in queries]
        for q in map(ip.ip_network, queries):
            assert r.lookup(q) == (longest_first(model, q) or [None])[0] and r.covering(q) == longest_first(model, q)
            assert r.covered(q) == [kv for kv in every if kv[0].version == q.version and kv[0].subnet_of(q)]
            assert r.next(q) == next((kv for kv in every if kv[0].version == q.version and key(kv[0]) > key(q)), None)
            assert r.find(q) == ((q, model[q]) if q in model else None)
        with ThreadPoolExecutor(4) as pool:  # one table, several threads, the GIL released
            assert [[x and (ip.ip_network(x.prefix), x.value) for x in b] for b in pool.map(w.lookup, [queries] * 8)] == [r.lookup(queries)] * 8

def test_a_reader_follows_the_tool_through_a_load_with_growth(tmp_path):
    rng = random.Random(3)
    nets = {random_net(rng, i % 3 == 0) for i in range(30000)} - RESERVED
    lines = [f"{n}\n" for n in nets]
    tool = subprocess.Popen([os.environ["DEPOTTRIE_TOOL"], "--root", str(tmp_path), "load", "-"], stdin=subprocess.PIPE, text=True)
    tool.stdin.write("".join(lines[:5000])), tool.stdin.flush()
    deadline, r = time.monotonic() + 60, None
    while r is None or len(r) < 5000:
        assert time.monotonic() < deadline and tool.poll() is None
        try: r = r or depottrie.open_reader("routes", root=tmp_path, prefixes="ipaddress")
        except depottrie.Error: time.sleep(0.01)
    before = r.stats()["shared_bytes"]
    tool.stdin.write("".join(lines[5000:])), tool.stdin.close()
    hosts = [n.network_address + rng.getrandbits(n.max_prefixlen - n.prefixlen) for n in rng.sample(sorted(nets, key=key), 2000)]
    while tool.poll() is None:  # mid-load, every answer is some stored prefix covering the host
        assert all(a is None or (a.prefix in nets and h in a.prefix and a.value == 0) for h, a in zip(hosts, r.lookup(hosts)))
    assert tool.wait() == 0 and r.stats()["shared_bytes"] > 2 * before and len(r) == len(nets)
    assert [p for p, _ in r] == sorted(nets, key=key)
    assert r.lookup(hosts) == [longest_first(model, ip.ip_network(h))[0] for model in [dict.fromkeys(nets, 0)] for h in hosts]

def test_bad_input_and_table_problems_raise(tmp_path):
    with pytest.raises(depottrie.Error, match="no trie named t"): depottrie.open_reader("t", root=tmp_path)
    w = depottrie.open_writer("t", root=tmp_path)
    r = depottrie.open_reader("t", root=str(tmp_path))
    for bad in ("10.0.0.1/8", "1.2.3.4/33", "", "2001:db8::/129", "0.0.0.0/31", ip.ip_network("::/128")):
        with pytest.raises(ValueError, match=r"invalid|reserved"): w.insert(bad)
    for call, args in ((w.lookup, [5]), (w.lookup, [b"\n\0\0\1"]), (w.lookup, [["10.0.0.0/8", None]]), (w.covered, [1.5]), (w.insert, ["10.0.0.0/8", "7"])):
        with pytest.raises(TypeError): call(*args)
    with pytest.raises(ValueError, match="item 1: invalid"): w.lookup(["10.0.0.0/8", "10.0.0.0/x"])
    with pytest.raises(ValueError): w.insert("10.0.0.0/8", -1)
    with pytest.raises(ValueError): depottrie.open_reader("t", root=tmp_path, prefixes="bytes")
    with pytest.raises(depottrie.Error, match="open for reading"): r.insert("10.0.0.0/8")
    with pytest.raises(OSError, match="already has a writer"): depottrie.open_writer("t", root=tmp_path)
    assert w.insert(ip.ip_interface("10.1.2.3/16"), 2**64 - 1) and r.lookup(ip.ip_address("10.1.9.9")) == ("10.1.0.0/16", 2**64 - 1)
    w.close(), w.close()
    with pytest.raises(ValueError, match="closed"): len(w)
    with depottrie.open_writer("t", root=tmp_path) as again: assert len(again) == 1
    assert again.closed and not r.closed

def test_installed_module_imports(tmp_path):
    subprocess.run(["cmake", "--install", os.environ["DEPOT_BUILD_DIR"], "--prefix", tmp_path], check=True, capture_output=True)
    site = tmp_path / os.environ["DEPOT_PYTHON_INSTALL_DIR"]
    out = subprocess.run([sys.executable, "-c", "import depottrie; print(depottrie.__file__, open('/proc/self/maps').read())"], env=dict(os.environ, PYTHONPATH=str(site)), check=True, capture_output=True, text=True).stdout
    libs = [line for line in out.splitlines() if "libDepotTrie" in line]  # the installed library, found from the module
    assert out.startswith(str(site)) and libs and all(f" {tmp_path}/" in line for line in libs)
