#!/usr/bin/env python3
"""Attributes the CPU samples of a perf recording (perf record -g) of
cloudplugin-host to the layers of the stack, by each sample's thread and the
frames nearest its leaf, and prints a Markdown table of CPU seconds per
layer. scripts/profile-layers.sh records and calls it.

Usage: perf_layers.py PERF_DATA [SAMPLE_HZ]

Without frame pointers in the C library, a memcpy cannot always be traced to
its caller: "memcpy, memset (C library)" holds the JNI array copies among
others."""
import collections, subprocess, sys

KERNEL_CALLS = [  # the first of these found walking from the leaf names the kernel work
    ("file writes (kernel)", ("pwrite", "generic_perform_write", "ext4_file_write", "iomap_dio")),
    ("file reads (kernel)", ("pread", "filemap_read", "ext4_file_read")),
    ("sockets (kernel)", ("tcp_", "sock_", "inet_", "__sys_recv", "__sys_send", "skb", "__dev_queue", "net_rx",
                          "__netif", "ip_", "loopback")),
    ("page faults (memory)", ("exc_page_fault",)),
]
ARRAY_CALLS = [
    ("plug-in copies (JNI arrays)", ("jni_GetByteArrayRegion", "jni_SetByteArrayRegion")),
    ("Java array allocation", ("jni_NewByteArray", "TypeArrayKlass::allocate", "MemAllocator", "OptoRuntime::new_array")),
]

def classify(comm, frames):
    if "CompilerThre" in comm:
        return "JIT compilation"
    if comm.startswith(("GC Thread", "G1 ", "VM Thread")):
        return "garbage collection"
    if not frames:
        return "other"
    leaf = frames[0]
    if "libcrypto" in leaf:
        return "SHA-256 (tool)"
    if "kernel.kallsyms" in leaf:
        for frame in frames:
            if "kernel.kallsyms" not in frame:
                break
            for layer, names in KERNEL_CALLS:
                if any(n in frame for n in names):
                    return layer
        return "kernel, other"
    if "libc.so" in leaf or "libjvm.so" in leaf:
        for frame in frames[:6]:
            for layer, names in ARRAY_CALLS:
                if any(n in frame for n in names):
                    return layer
        return "JVM runtime" if "libjvm.so" in leaf else "memcpy, memset (C library)"
    if "[unknown]" in leaf or "[JIT]" in leaf or "perf-" in leaf or "Interpreter" in leaf:
        return "Java code (HTTP, library)"
    if "QVAzurePlugin" in leaf:
        return "plug-in code"
    if "cloudplugin-host" in leaf:
        return "tool code"
    return "other"

def samples(path):
    out = subprocess.run(["perf", "script", "-i", path, "-F", "comm,ip,sym,dso"],
                         capture_output=True, text=True).stdout
    comm, frames = None, []
    for line in out.splitlines():
        if not line.strip():
            if comm is not None:
                yield comm, frames
            comm, frames = None, []
        elif line[0] in " \t":
            frames.append(line.strip())
        else:
            comm, frames = line.strip(), []
    if comm is not None:
        yield comm, frames

counts = collections.Counter()
for comm, frames in samples(sys.argv[1]):
    counts[classify(comm, frames)] += 1
hz = float(sys.argv[2]) if len(sys.argv) > 2 else 499.0
total = sum(counts.values())
for layer, n in counts.most_common():
    print(f"| {layer} | {n / hz:.2f} | {100.0 * n / total:.0f} % |")
print(f"| total | {total / hz:.2f} | |")
