# SPDX-FileCopyrightText: 2026 the libfrwk authors
# SPDX-License-Identifier: MIT
"""Makes what the machine boots: kernel, initramfs, system and data partitions. What is fetched is kept in build/device."""
import compileall
import fcntl
import glob
import os
import py_compile
import shutil
import subprocess
import sys

from emulated import fail, progress

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
HERE = os.path.join(ROOT, "build", "device")
APT = os.path.join(HERE, "apt")
ARCHIVES = os.path.join(APT, "cache", "archives")
KERNEL, INITRAMFS, SYSTEM, BLANK = (os.path.join(HERE, name) for name in ("vmlinuz", "initramfs", "system", "data"))
FETCHED = os.path.join(HERE, "fetched")

MIRROR = os.environ.get("DEBIAN_MIRROR", "http://deb.debian.org/debian")
KEYRING = "/usr/share/keyrings/debian-archive-keyring.gpg"
KERNEL_PACKAGE = "linux-image-armmp"
MODULES = ("virtio_mmio", "virtio_blk", "virtio_console", "ext4")
# The device needs the first three. The others are for what is tried on it: the demo is a bash script with a Python
# client and has terminals by socat, the tests are C++ and Python and run in bubblewrap, strace counts system calls.
PACKAGES = ("busybox-static", "libc6", "libgcc-s1", "bash", "python3", "socat", "bubblewrap", "strace", "libstdc++6")
# Others depend on these, but nothing here runs them.
UNUSED = ("base-files", "debianutils", "dpkg", "mawk", "tar")
OWN_PACKAGES = ("libfrwk0", "frwk-tools", "frwk-examples")
DIRECTORIES = ("usr/bin", "usr/sbin", "usr/lib", "etc/init.d", "usrdata", "tmp", "run", "proc", "sys", "dev", "mnt",
               "root", "var")
DATA_SIZE = 16 << 20

APT_CONF = """APT::Architecture "armhf";
APT::Architectures "armhf";
APT::Install-Recommends "false";
APT::Sandbox::User "root";
Acquire::Languages "none";
Acquire::Retries "2";
Dir::State "{0}";
Dir::State::status "{0}/status";
Dir::State::lists "{0}/lists";
Dir::Cache "{0}/cache";
Dir::Etc::parts "/dev/null";
Dir::Etc::sourceparts "/dev/null";
Dir::Etc::sourcelist "{0}/sources.list";
Dir::Etc::trusted "/dev/null";
"""


def output_of(*command, **more):
    return subprocess.run(command, check=True, capture_output=True, text=True, **more).stdout


# ---- fetching, by an apt of its own: the packages of this machine have no part in it

def apt(what, *command):
    """Runs a command of apt; `what` is named when it fails."""
    environment = {**os.environ, "APT_CONFIG": os.path.join(APT, "apt.conf"), "LC_ALL": "C"}
    done = subprocess.run(command, cwd=ARCHIVES, env=environment, capture_output=True, text=True, check=False)
    complaints = [line for line in (done.stderr + done.stdout).splitlines() if line.startswith(("E:", "Err:"))]
    if done.returncode != 0 or (command[1] == "update" and complaints):
        reason = (complaints or done.stderr.splitlines() or ["apt-get failed"])[-1]
        fail("cannot fetch %s from %s: %s" % (what, MIRROR, reason))
    return done.stdout


def set_up_apt():
    for directory in ("lists/partial", "cache/archives/partial"):
        os.makedirs(os.path.join(APT, directory), exist_ok=True)
    if not os.path.exists(KEYRING):
        fail("cannot check what is fetched: %s is missing (package debian-archive-keyring)" % KEYRING)
    for name, text in (("apt.conf", APT_CONF.format(APT)), ("status", ""),
                       ("sources.list", "deb [signed-by=%s] %s bookworm main\n" % (KEYRING, MIRROR))):
        with open(os.path.join(APT, name), "w", encoding="utf-8") as file:
            file.write(text)


def fetch_all():
    """The files of the kernel's package and of all others, by name of the package."""
    if os.path.exists(FETCHED):
        with open(FETCHED, encoding="utf-8") as file:
            names = dict(line.split() for line in file)
        if names.keys() >= set(PACKAGES) and all(os.path.exists(os.path.join(ARCHIVES, name)) for name in names.values()):
            return names
    progress("fetching the kernel and packages of Debian armhf (60 MB, once)")
    set_up_apt()
    apt("the lists of Debian's armhf packages", "apt-get", "update", "-q")
    depends = apt(KERNEL_PACKAGE, "apt-cache", "depends", KERNEL_PACKAGE)
    kernel = [line.split()[1] for line in depends.splitlines() if "Depends: linux-image-" in line]
    if not kernel:
        fail("cannot fetch a kernel: %s depends on none" % KERNEL_PACKAGE)
    for package in PACKAGES:
        apt("the package " + package, "apt-get", "install", "-d", "-y", "-q", package)
    apt("the kernel " + kernel[0], "apt-get", "download", "-q", kernel[0])
    wanted = apt("packages", "apt-get", "install", "--print-uris", "--reinstall", "-y", "-qq", "-o",
                 "Dir::Cache=" + os.path.join(APT, "nothing"), *PACKAGES)
    files = {line.split()[1].split("_")[0]: line.split()[1] for line in wanted.splitlines() if line.startswith("'")}
    files[KERNEL_PACKAGE] = os.path.basename(max(glob.glob(os.path.join(ARCHIVES, kernel[0] + "_*")),
                                                 key=os.path.getmtime))
    with open(FETCHED + ".new", "w", encoding="utf-8") as file:
        file.writelines("%s %s\n" % entry for entry in sorted(files.items()))
    os.rename(FETCHED + ".new", FETCHED)
    return files


def unpack(package, directory):
    subprocess.run(["dpkg-deb", "-x", package, directory], check=True)


# ---- making

def compile_program(name, *options):
    """One of image/programs, linked with the library of the packages. Its path."""
    directory = os.path.join(HERE, "programs")
    os.makedirs(directory, exist_ok=True)
    program, source = (os.path.join(directory, name), os.path.join(ROOT, "image", "programs", name + ".c"))
    subprocess.run(["arm-linux-gnueabihf-gcc", "-std=c11", "-D_GNU_SOURCE", "-Os", "-Wall", "-Wextra", "-Werror", "-I",
                    os.path.join(ROOT, "include"), "-o", program, source, *options], check=True)
    return program


LIBRARY = os.path.join(ROOT, "build", "package-arm-linux-gnueabihf", "libfrwk.so")


def fresh(name):
    """An empty directory of that name."""
    path = os.path.join(HERE, name)
    shutil.rmtree(path, ignore_errors=True)
    os.makedirs(path)
    return path


def newer(target, *sources):
    """Whether the target is there and made after all of the sources."""
    return os.path.exists(target) and all(os.path.getmtime(target) > os.path.getmtime(source) for source in sources)


def files_below(directory):
    return [os.path.join(where, name) for where, _, names in os.walk(directory) for name in names]


def make_partition(path, tree, label, size, reserve=()):
    """An ext4 file system with what is in a tree."""
    new = path + ".new"
    with open(new, "wb") as file:
        file.truncate(size)
    subprocess.run(["mke2fs", "-q", "-F", "-t", "ext4", "-L", label, "-E",
                    "root_owner=0:0,lazy_itable_init=0,lazy_journal_init=0,nodiscard", *reserve, "-d", tree, new],
                   check=True)
    os.rename(new, path)


def make_kernel(archive):
    """The kernel, and the modules of the initramfs in the order in which they go in."""
    tree = fresh("kernel")
    unpack(archive, tree)
    version = os.listdir(os.path.join(tree, "lib", "modules"))[0]
    subprocess.run(["depmod", "-b", tree, version], check=True)
    needed = []
    for module in MODULES:
        for line in output_of("modprobe", "-S", version, "-d", tree, "--show-depends", module).splitlines():
            path = line.split()[1]
            # The emulated processor has none of the instructions of this one; the generic one does.
            if path not in needed and "/arch/" not in path:
                needed.append(path)
    initramfs = fresh("initramfs.tree")
    for directory in ("modules", "proc", "sys", "dev", "root"):
        os.makedirs(os.path.join(initramfs, directory))
    for path in needed:
        shutil.copy(path, os.path.join(initramfs, "modules"))
    with open(os.path.join(initramfs, "modules", "order"), "w", encoding="utf-8") as file:
        file.writelines(os.path.basename(path) + "\n" for path in needed)
    shutil.copy(glob.glob(os.path.join(tree, "boot", "vmlinuz-*"))[0], KERNEL)
    shutil.rmtree(tree)
    return initramfs


def make_initramfs(tree, busybox):
    unpack(busybox, tree)
    shutil.rmtree(os.path.join(tree, "usr"))
    shutil.copy(os.path.join(ROOT, "image", "initramfs", "init"), tree)
    with open(INITRAMFS + ".new", "wb") as file:
        names = "\n".join(os.path.relpath(path, tree) for path in
                          [os.path.join(tree, name) for name in os.listdir(tree)] + files_below(tree))
        archive = subprocess.run(["cpio", "-o", "-H", "newc", "--quiet", "-R", "0:0"], cwd=tree, input=names.encode(),
                                 check=True, stdout=subprocess.PIPE).stdout
        subprocess.run(["gzip", "-1n"], input=archive, stdout=file, check=True)
    os.rename(INITRAMFS + ".new", INITRAMFS)


def make_system(files):
    """Debian's packages, this project's, and the configuration in image/system."""
    tree = fresh("system.tree")
    for directory in DIRECTORIES:
        os.makedirs(os.path.join(tree, directory))
    for name in ("bin", "sbin", "lib"):
        os.symlink("usr/" + name, os.path.join(tree, name))
    os.symlink("/run/log", os.path.join(tree, "var", "log"))
    for package, archive in files.items():
        if package not in UNUSED and package != KERNEL_PACKAGE:
            unpack(os.path.join(ARCHIVES, archive), tree)
    for package in OWN_PACKAGES:
        unpack(own_package(package), tree)
    busybox = os.path.join(tree, "bin", "busybox")
    for applet in output_of("qemu-arm", busybox, "--list-full").split():
        link = os.path.join(tree, applet)
        if os.path.isdir(os.path.dirname(link)) and not os.path.lexists(link):
            os.symlink("/bin/busybox", link)
    shutil.copytree(os.path.join(ROOT, "image", "system"), tree, dirs_exist_ok=True)
    if sys.version_info[:2] == (3, 11):  # the device's own: there a first run would take as long as a boot
        compileall.compile_dir(os.path.join(tree, "usr", "lib", "python3.11"), quiet=2, stripdir=tree,
                               invalidation_mode=py_compile.PycInvalidationMode.UNCHECKED_HASH)
    for where in ("usr/share/doc", "usr/share/locale", "usr/share/man"):
        shutil.rmtree(os.path.join(tree, where), ignore_errors=True)
    make_partition(SYSTEM, tree, "system", 128 << 20, ("-O", "^has_journal", "-m", "0"))
    shutil.rmtree(tree)


def built_tests():
    """A tree with the tests as they are installed on a device."""
    progress("building the tests")
    log = os.path.join(HERE, "tests.log")
    tree = fresh("tests.tree")
    with open(log, "w", encoding="utf-8") as file:
        for command in (("cmake", "--preset", "arm"), ("cmake", "--build", "--preset", "arm"),
                        ("cmake", "--install", "build/arm", "--component", "tests", "--prefix", tree, "--strip")):
            if subprocess.run(command, cwd=ROOT, stdout=file, stderr=file, check=False).returncode != 0:
                fail("the tests cannot be built; %s has what it says" % os.path.relpath(log))
    return os.path.join(tree, "libexec", "frwk", "tests")


def own_package(name):
    archives = glob.glob(os.path.join(ROOT, "build", "packages", name + "_*_armhf.deb"))
    if len(archives) != 1:
        fail("build/packages has %d packages %s for armhf; tools/package arm makes them" % (len(archives), name))
    return archives[0]


def installed_size(package):
    """In KiB."""
    return int(output_of("dpkg-deb", "-f", own_package(package), "Installed-Size"))


def build():
    """Everything the machine boots; what is there and newer than what it is made of stays. One run at a time does so."""
    os.makedirs(HERE, exist_ok=True)
    with open(os.path.join(HERE, "lock"), "w", encoding="utf-8") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        build_locked()


def build_locked():
    progress("building the packages")
    log = os.path.join(HERE, "package.log")
    with open(log, "w", encoding="utf-8") as file:
        if subprocess.run(["tools/package", "arm"], cwd=ROOT, stdout=file, stderr=file, check=False).returncode != 0:
            fail("tools/package arm fails; %s has what it says" % os.path.relpath(log))
    files = fetch_all()
    recipe = os.path.abspath(__file__)
    busybox = os.path.join(ARCHIVES, files["busybox-static"])
    if not newer(INITRAMFS, recipe, FETCHED, os.path.join(ROOT, "image", "initramfs", "init")):
        progress("making the initramfs")
        make_initramfs(make_kernel(os.path.join(ARCHIVES, files[KERNEL_PACKAGE])), busybox)
    libraries = glob.glob(os.path.join(ROOT, "build", "package-arm-linux-gnueabihf", "**", "*"), recursive=True)
    programs = [path for path in libraries if os.path.basename(os.path.dirname(path)) == "programs"]
    programs.append(os.path.join(ROOT, "build", "package-arm-linux-gnueabihf", "libfrwk.so"))
    if not newer(SYSTEM, recipe, FETCHED, *programs, *files_below(os.path.join(ROOT, "image", "system"))):
        progress("making the system partition")
        make_system(files)
    if not newer(BLANK, recipe):
        make_partition(BLANK, fresh("data.tree"), "usrdata", DATA_SIZE)
    progress()
