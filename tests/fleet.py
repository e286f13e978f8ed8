# SPDX-License-Identifier: MIT
"""A fleet on one machine, for tests and for what is measured: databases, gatherers, nodes, and lines by RELP. In machines.py there
are nodes that boot.

Whoever imports it has run `enter(__file__)` first: everything happens in namespaces of its own, with which all processes end.
Nothing of the machine's is touched."""
import atexit
import ctypes
import datetime
import difflib
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

REPOSITORY = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
FLEET = REPOSITORY + "/fleet"
BIN = REPOSITORY + "/build/release/bin"
POSTGRES = "/usr/lib/postgresql/15/bin"
HERE = "10.77.0.1"  # where nodes find what runs here
ALPHABET = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"

folder = ""  # of everything
environment = {}
log = None
began = time.monotonic()


def enter(script):
    """Runs the script again in namespaces of its own, where it is not yet, and sets up what the rest needs."""
    global folder, environment, log
    if os.environ.get("ZELK_INSIDE") != "yes":
        command = ["unshare", "--mount", "--net", "--uts", "--pid", "--fork", "--kill-child", "--mount-proc"]
        if subprocess.run(command + ["true"], stderr=subprocess.DEVNULL).returncode != 0:
            print(f"{os.path.basename(script)}: skipped, no namespaces can be made here")
            sys.exit(0)
        os.environ["ZELK_INSIDE"] = "yes"
        os.execvp("unshare", command + ["python3", script] + sys.argv[1:])
    folder = tempfile.mkdtemp(prefix="zkview-fleet-")
    os.chmod(folder, 0o755)
    environment = os.environ | {"PATH": f"{BIN}:/usr/sbin:" + os.environ["PATH"], "PGHOST": folder, "PGUSER": "postgres",
                                "PGDATABASE": "zelk", "PSQLRC": folder + "/psqlrc", "LC_ALL": "C.UTF-8", "TZ": "UTC"}
    os.environ.update(environment)
    with open(folder + "/psqlrc", "w") as file:
        file.write("\\echo what a user likes to be told\n")
    log = open(folder + "/log", "a")
    atexit.register(clean_up)
    run("ip", "link", "set", "lo", "up")
    run("ip", "link", "add", "switch", "type", "bridge")
    run("ip", "address", "add", HERE + "/24", "dev", "switch")
    run("ip", "link", "set", "switch", "up")


def clean_up():
    for process in list(processes):
        kill(process)
    for name in filter(lambda name: os.path.exists(f"{folder}/{name}"), ("database", "standby")):
        subprocess.run(as_postgres(POSTGRES + "/pg_ctl", "-D", f"{folder}/{name}", "-m", "immediate", "stop"),
                       stdout=log, stderr=log, check=False)
    shutil.rmtree(folder, ignore_errors=True)


# ---- What is found ------------------------------------------------------------------------------------------------------

failures = 0


def say(what):
    print(f"{time.monotonic() - began:4.0f} s  {what}", flush=True)


def expect(what, found, wanted):
    global failures
    failures += found != wanted
    say(f"passed: {what}" if found == wanted else f"FAILED: {what}: {found!r} instead of {wanted!r}")
    if failures and "--stop" in sys.argv:
        finish()


def transcript(name, hosts=None, **names):
    """Runs the commands of tests/golden/NAME, "HOST$ COMMAND" for one of `hosts` or "$ COMMAND", and holds what stands there against
    what they say now. In the file each of `names` stands for its text. RENEW_GOLDEN=1 writes the file anew."""
    path, names = f"{REPOSITORY}/tests/golden/{name}", {"FOLDER": folder, "FLEET": FLEET} | names
    wanted = open(path).read().splitlines()
    found = []
    for line in wanted:
        command = re.fullmatch(r"(\w*)\$ (.*)", line)
        if command:
            text = re.sub("|".join(names), lambda name: names[name[0]], command[2])
            enter, variables = (hosts or {}).get(command[1], ([], {}))
            answer = subprocess.run([*enter, "timeout", "300", "sh", "-c", text], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                    text=True, env=environment | variables)
            said = re.sub("|".join(map(re.escape, names.values())), lambda text: next(name for name in names if names[name] == text[0]), answer.stdout)
            found += [line, *said.splitlines(), *[f"--- status {answer.returncode}"] * (answer.returncode != 0)]
        elif line.startswith("## "):
            found.append(line)
    if os.environ.get("RENEW_GOLDEN"):
        with open(path, "w") as file:
            file.write("".join(line + "\n" for line in found))
    expect(f"what {name} tells is so", list(difflib.unified_diff(wanted, found, "told", "so", n=0, lineterm="")), [])


def finish():
    """Ends the program, with the status of all that was expected. (With --stop the first failure does.)"""
    say(f"{failures} failed")
    if failures:
        subprocess.run(f"tail -n 8 {folder}/*.log", shell=True, check=False)
    sys.exit(failures > 0)


# ---- Processes ----------------------------------------------------------------------------------------------------------

processes = []  # that were started here


def run(*command, **options):
    """Returns what it prints."""
    answer = subprocess.run(command, stdout=subprocess.PIPE, text=True, env=environment, **options)
    if answer.returncode != 0:
        raise RuntimeError(f"{command}: status {answer.returncode}: {answer.stdout}\n{open(folder + '/log').read()[-1000:]}")
    return answer.stdout


def start(*command, output=None, **variables):
    """Starts a process of a group of its own."""
    process = subprocess.Popen(command, env=environment | variables, stdout=output or log, stderr=output or log,
                               start_new_session=True)
    processes.append(process)
    return process


def kill(process, how=signal.SIGKILL):
    """Ends a process with all of its group."""
    try:
        os.killpg(process.pid, how)
    except ProcessLookupError:
        pass
    process.wait()
    if process in processes:
        processes.remove(process)
    return process.returncode


def wait_until(is_so, limit=20.0, pause=0.02):
    """Returns whether it has become so."""
    end = time.monotonic() + limit
    while not is_so():
        if time.monotonic() > end:
            return False
        time.sleep(pause)
    return True


# ---- Databases ----------------------------------------------------------------------------------------------------------

def as_postgres(*command):
    return ["runuser", "-u", "postgres", "--", *command]


def make_cluster(*settings):
    shutil.chown(folder, "postgres")
    run(*as_postgres(POSTGRES + "/initdb", "-D", folder + "/database", "-A", "trust", "-U", "postgres", "-E", "UTF8",
                     "--locale=C.UTF-8"))
    with open(folder + "/database/postgresql.conf", "a") as file:
        file.write("\n".join([f"unix_socket_directories = '{folder}'", "listen_addresses = ''", "max_wal_size = 4GB",
                              *settings, ""]))
    start_cluster()


def start_cluster():
    """After a kill the last of the old server's processes may be in the way for a moment."""
    command = as_postgres(POSTGRES + "/pg_ctl", "-D", folder + "/database", "-l", folder + "/database.log", "-w", "start")
    if not wait_until(lambda: subprocess.run(command, stdout=log, stderr=log).returncode == 0, pause=0.3):
        raise SystemExit("the database does not start: " + open(folder + "/database.log").read()[-2000:])


def kill_cluster():
    with open(folder + "/database/postmaster.pid") as file:
        process = int(file.readline())
    os.kill(process, signal.SIGKILL)
    os.waitpid(process, 0)  # this is process 1 here


def make_standby():
    """A synchronous standby of the cluster: a commit returns when it is on both. Its socket is in folder/standby-socket."""
    os.mkdir(folder + "/standby-socket")
    shutil.chown(folder + "/standby-socket", "postgres")
    run(*as_postgres(POSTGRES + "/pg_basebackup", "-h", folder, "-D", folder + "/standby", "-R", "-c", "fast", "-X", "stream",
                     "-d", f"host={folder} application_name=standby"))
    with open(folder + "/standby/postgresql.conf", "a") as file:
        file.write(f"unix_socket_directories = '{folder}/standby-socket'\nlisten_addresses = ''\n")
    run(*as_postgres(POSTGRES + "/pg_ctl", "-D", folder + "/standby", "-l", folder + "/standby.log", "-w", "start"))
    query("ALTER SYSTEM SET synchronous_standby_names = 'standby'")
    query("SELECT pg_reload_conf()")
    if not wait_until(lambda: query("SELECT sync_state FROM pg_stat_replication") == "sync"):
        raise SystemExit("the standby does not follow: " + open(folder + "/standby.log").read()[-2000:])


def make_database(name):
    run("createdb", name)
    run("psql", "-Xqf", FLEET + "/schema.sql", name)


def spread(*names):
    """Spreads the rows of databases of this cluster over all of them."""
    places = ", ".join(f"$$host='{folder}' dbname='{name}' user=postgres$$" for name in names)
    for name in names:
        query("SELECT zelk_unspread()", name)
    for number, name in enumerate(names):
        query(f"SELECT zelk_spread(ARRAY[{places}], {number + 1})", name)


def query(text, database="zelk", user="postgres", host=None):
    return run("psql", "-XqAt", "-v", "ON_ERROR_STOP=1", "-h", host or folder, "-U", user, database, input=text, stderr=log).strip()


def missing(recorded, ask=query):
    """Of incidents that were recorded (host, stack, Error ID) those that are not there under the name of their host."""
    there = set(ask("SELECT host || ' ' || key FROM zelk_incident").splitlines())
    return [(host, stack, key) for host, stack, key in recorded if f"{host} {key}" not in there]


def missing_untold(recorded, ask=query):
    """What may be missing is what a stack overwrote while nobody could read it, and a gap tells of that."""
    gaps = set(ask("SELECT host || ' ' || stack FROM zelk_gaps").splitlines())
    return [(host, stack, key) for host, stack, key in missing(recorded, ask) if f"{host} {stack}" not in gaps]


def conninfo(database="zelk"):
    return f"host={folder} dbname={database} user=zelk_writer"


# ---- Gatherers ----------------------------------------------------------------------------------------------------------

def start_gatherer(*options, port=2514, name="gatherer", **variables):
    """Starts one and waits until it listens. Its log is NAME.log."""
    with open(f"{folder}/{name}.log", "a") as output:
        process = start("zelk-gather", *options, output=output, **variables)
    process.log = output.name
    if not wait_until(lambda: is_listening(port)):
        raise SystemExit("the gatherer does not start: " + open(output.name).read())
    return process


def sockets_of(process):
    """How soon each TCP connection of a process notices that the other side has vanished, and whether what is little leaves at once:
    keep-alive, seconds of silence, between probes, probes, milliseconds without an answer, no delay."""
    found, folder = [], f"/proc/{process.pid}/fd/"
    options = [(socket.SOL_SOCKET, socket.SO_KEEPALIVE)] + [(socket.IPPROTO_TCP, getattr(socket, "TCP_" + name)) for name in (
        "KEEPIDLE", "KEEPINTVL", "KEEPCNT", "USER_TIMEOUT", "NODELAY")]
    for fildes in filter(lambda fildes: os.readlink(folder + fildes).startswith("socket:"), os.listdir(folder)):
        copy = ctypes.CDLL(None).syscall(438, os.pidfd_open(process.pid), int(fildes), 0)  # pidfd_getfd
        with socket.socket(fileno=copy) as same:
            if same.family == socket.AF_INET and not same.getsockopt(socket.SOL_SOCKET, socket.SO_ACCEPTCONN):
                found.append([same.getsockopt(*option) for option in options])
    return found


def is_listening(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


def make_authority(name):
    """A key and a certificate that sign others: NAME.key, NAME.pem."""
    run("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "2", "-subj",
        f"/CN={name}", "-keyout", f"{folder}/{name}.key", "-out", f"{folder}/{name}.pem", stderr=log)


def make_certificate(name, authority, host, subject=None):
    """For the DNS name, the first of its names of that kind, or for the subject only."""
    run("openssl", "req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj", subject or "/CN=other.example",
        *([] if subject else ["-addext", f"subjectAltName=IP:192.0.2.1,DNS:{host},DNS:other.example"]), "-keyout", f"{folder}/{name}.key", "-out", f"{folder}/{name}.csr", stderr=log)
    run("openssl", "x509", "-req", "-in", f"{folder}/{name}.csr", "-CA", f"{folder}/{authority}.pem", "-CAkey",
        f"{folder}/{authority}.key", "-days", "2", "-copy_extensions", "copy", "-out", f"{folder}/{name}.pem", stderr=log)


def revoke(authority, *names):
    """Writes the list of revoked certificates AUTHORITY.crl, with those of these names in it."""
    with open(f"{folder}/{authority}.conf", "w") as file:
        file.write(f"[ca]\ndefault_ca = own\n[own]\ndatabase = {folder}/{authority}.txt\ndefault_md = sha256\n")
    open(f"{folder}/{authority}.txt", "a").close()
    command = ["openssl", "ca", "-config", f"{folder}/{authority}.conf", "-cert", f"{folder}/{authority}.pem", "-keyfile",
               f"{folder}/{authority}.key"]
    for name in names:
        run(*command, "-revoke", f"{folder}/{name}.pem", stderr=log)
    run(*command, "-gencrl", "-crldays", "2", "-out", f"{folder}/{authority}.crl", stderr=log)


def tls_options(name, authority):
    return [f"--tls-certificate={folder}/{name}.pem", f"--tls-key={folder}/{name}.key", f"--tls-ca={folder}/{authority}.pem"]


# ---- RELP ---------------------------------------------------------------------------------------------------------------

def frames_of(connection):
    """Yields number, command and content of each frame that comes, until the other side closes."""
    rest = b""
    while True:
        head = re.match(rb"(\d+) (\w+) (\d+) ?", rest)
        if head and len(rest) > head.end() + int(head[3]):
            yield int(head[1]), head[2].decode(), rest[head.end():head.end() + int(head[3])]
            rest = rest[head.end() + int(head[3]) + 1:]
            continue
        received = connection.recv(1 << 16)
        if not received:
            return
        rest += received


class Conversation:
    """What a node says to a gatherer, and what has been answered. `tls` is an ssl.SSLContext."""

    def __init__(self, port=2514, host="node9", tls=None, is_open=True, address="127.0.0.1"):
        self.host = host
        self.sent = 0
        self.answered = 0
        self.rest = b""
        self.socket = socket.create_connection((address, port), timeout=30)
        if tls:
            self.socket = tls.wrap_socket(self.socket, server_hostname="middle.example")
        if is_open:
            self.say("open", b"relp_version=0\nrelp_software=test\ncommands=syslog")
            self.wait(1)

    def frame(self, command, content):
        self.sent += 1
        return b"%d %s %d%s%s\n" % (self.sent, command.encode(), len(content), b" " if content else b"", content)

    def say(self, command, content):
        self.socket.sendall(self.frame(command, content))

    def tell(self, lines, place="1.json"):
        """Sends lines, texts or bytes, each from a place of its own."""
        frames = []
        for number, line in enumerate(lines):
            content = line if isinstance(line, bytes) else line.encode()
            frames.append(self.frame("syslog", f"<134>1 - {self.host} zelk {place}:{number} - - ".encode() + content))
        self.socket.sendall(b"".join(frames))

    def wait(self, number=None):
        """Waits for the answer to a frame, the last one unless given. Raises OSError when the connection ends."""
        number = number or self.sent
        while self.answered < number:
            self.take()

    def take(self):
        received = self.socket.recv(1 << 16)
        if not received:
            raise OSError("closed")
        lines = self.rest + received
        whole = lines.rfind(b"\n") + 1
        self.rest = lines[whole:]
        for number in re.findall(rb"^(\d+) rsp \d+ 200 OK\n", lines[:whole], re.MULTILINE):
            self.answered = int(number)

    def close(self):
        self.socket.close()


def put(lines, port=2514, host="node9", place="1.json", tls=None):
    """Tells lines and waits until they have been taken."""
    conversation = Conversation(port, host, tls)
    conversation.tell(lines, place)
    conversation.wait()
    conversation.close()


# ---- Lines --------------------------------------------------------------------------------------------------------------

SECOND = 1_795_590_570  # 2026-11-25 07:09:30 UTC

LINE = ('{"stack":"disks","offset":24,"id":"@ID","cause":@CAUSE,"time":"@TIMEZ","id_time":"@TIME.@MICROZ","node":"192.0.2.2",'
        '"process":{"name":"diskmon","id":4711,"parent":1,"thread":4711},'
        '"source":{"file":"dm_scan.c","version":"1.7","product":"stn.node","line":412},'
        '"message":{"catalog":"","set":0,"number":0,"default":"Disk %s: %d unreadable sectors, the first at %lld, %g.",'
        '"arguments":[{"type":"string","value":"disk07"},{"type":"int","value":3},{"type":"long_long","value":8589934712},'
        '{"type":"double","value":0.5}]},"description":"Disk disk07: 3 unreadable sectors, the first at 8589934712, 0.5.",'
        '"details":"slot 7 of enclosure 1\\nretries    16"}')


def digits(number, count):
    return "".join(ALPHABET[number >> 6 * at & 63] for at in range(count))


def id_of(number, second=SECOND):
    """The Error ID of incident `number`: its microsecond and its i-node follow from it."""
    return ("7" + digits(number, 6) + digits(second, 6) + digits(number * 997 % 1_000_000, 4) + "06...1................." +
            "..")[:42]


def line_of(number, second=SECOND, cause=None):
    """A line of zkexport for incident `number`."""
    at = datetime.datetime.fromtimestamp(second, datetime.timezone.utc).strftime("%Y-%m-%dT%H:%M:%S")
    return (LINE.replace("@ID", id_of(number, second)).replace("@CAUSE", f'"{cause}"' if cause else "null")
            .replace("@TIME", at).replace("@MICRO", f"{number * 997 % 1_000_000:06}"))


# ---- Nodes --------------------------------------------------------------------------------------------------------------

hosts = []


class Host:
    """What has a name and a network of its own. A switch joins all of them, and what runs here."""

    as_member = []  # how an incident is recorded by who may

    def __init__(self, name, *namespaces):
        self.name = name
        self.address = f"10.77.0.{len(hosts) + 2}"
        hosts.append(self)
        self.holder = start("unshare", "--net", *namespaces, "sleep", "infinity")
        own = os.readlink("/proc/self/ns/net")
        wait_until(lambda: os.readlink(f"/proc/{self.holder.pid}/ns/net") != own)
        run("ip", "link", "add", name, "type", "veth", "peer", "name", "eth0", "netns", str(self.holder.pid))
        run("nsenter", "--target", str(self.holder.pid), "--net", "sh", "-c",
            f"ip link set lo up && ip address add {self.address}/24 dev eth0 && ip link set eth0 up")
        run("ip", "link", "set", name, "master", "switch", "up")

    def cut_off(self):
        run("ip", "link", "set", self.name, "down")

    def connect(self):
        run("ip", "link", "set", self.name, "up")

    def run(self, *command, **options):
        return run(*self.enter(), *command, **{"stderr": log} | options)

    def attempt(self, *command):
        """Returns the status of a command that may fail, and what it prints."""
        answer = subprocess.run([*self.enter(), *command], stdout=subprocess.PIPE, stderr=log, text=True, env=environment)
        return answer.returncode, answer.stdout

    def record(self, stack, *arguments):
        """Records an incident. Returns its Error ID."""
        return self.run(*self.as_member, "zkrecord", "-C", *arguments[:-1], stack, *arguments[-1:]).strip()

    def start_recording(self, stack, count, *options, stacks=4):
        """Starts to record incidents, in several stacks. It prints the stack and the Error ID of each."""
        script = 'for number in $(seq "$2"); do stack=$1$((number % $3)); id=$(zkrecord -C "${@:4}" "$stack" ' \
                 '"Disk %s: %d unreadable sectors." disk07 "$number") && echo "$stack $id"; sleep 0.004; done'
        return subprocess.Popen([*self.enter(), *self.as_member, "bash", "-c", script, "-", stack, str(count), str(stacks), *options],
                                stdout=subprocess.PIPE, stderr=log, text=True, env=environment)


class Node(Host):
    """A node with files of its own, and what runs on it."""

    def __init__(self, number, port=2514):
        super().__init__(f"node{number}", "--mount", "--uts")
        self.middle = f"{HERE}:{port}"
        self.run("sh", "-c", f"""hostname {self.name} && mount -t tmpfs none /var && mount -t tmpfs none /run &&
            mkdir -p /var/adm/zelk/stacks /var/lib/zelk/spool""")

    def enter(self):
        return ["nsenter", "--target", str(self.holder.pid), "--mount", "--root", "--net", "--uts"]

    def start_spool(self, **variables):
        self.spool = start(*self.enter(), FLEET + "/zelk-spool", ZELK_SPOOL_SIZE="131072", **variables)

    def start_forward(self):
        with open(f"{folder}/forward-{self.name}.log", "a") as output:
            self.forward = start(*self.enter(), "zelk-forward", "--state=/run/taken", self.middle, output=output)

    def start_rsyslog(self):
        """Sends what is in the spool in another way, and leaves it there."""
        self.run("mkdir", "/run/zelk-forward")
        self.forward = start(*self.enter(), "rsyslogd", "-n", "-iNONE", "-f", FLEET + "/node.conf", ZELK_MIDDLE=HERE,
                             ZELK_PORT="2514", ZELK_SPOOL="/var/lib/zelk/spool", ZELK_STATE="/run/zelk-forward")
