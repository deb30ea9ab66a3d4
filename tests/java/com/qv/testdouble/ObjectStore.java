package com.qv.testdouble;

import com.qv.AzureLibrary.CPluginMetaData;

import java.util.ArrayList;
import java.util.Arrays;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.TreeMap;

/**
 * The in-memory objects of the double: bytes and metadata (property name to
 * value text, in the order the properties were set) by object name. A null
 * name counts as the empty name. Thread-safe.
 */
public final class ObjectStore {
    private static final class Entry {
        byte[] data = new byte[0];
        final LinkedHashMap<String, String> meta = new LinkedHashMap<>();
    }

    private final TreeMap<String, Entry> objects = new TreeMap<>();
    private long keyGeneration = 1;

    private static String key(String name) {
        return name == null ? "" : name;
    }

    private Entry entry(String name) {
        return objects.computeIfAbsent(key(name), k -> new Entry());
    }

    public synchronized void clear() {
        objects.clear();
        keyGeneration = 1;
    }

    public synchronized void create(String name) {
        entry(name);
    }

    /** Replaces the object's bytes (creating the object); its metadata stays. */
    public synchronized void putData(String name, byte[] data) {
        entry(name).data = data == null ? new byte[0] : data;
    }

    /** Replaces the object's metadata by the array's properties (null elements and names are skipped). */
    public synchronized void putMetaData(String name, CPluginMetaData[] metaData) {
        Entry e = entry(name);
        e.meta.clear();
        for (CPluginMetaData m : metaData) {
            if (m != null && m.szPropertyName != null) {
                e.meta.put(m.szPropertyName, m.val == null ? null : m.val.szProperty);
            }
        }
    }

    public synchronized void setProperty(String name, String property, String value) {
        entry(name).meta.put(key(property), value);
    }

    /** The value of one property, null when the object or the property is unknown. */
    public synchronized String property(String name, String property) {
        Entry e = objects.get(key(name));
        return e == null ? null : e.meta.get(key(property));
    }

    /** The object's properties as an array (only those named in `only` when it is not null), empty when unknown. */
    public synchronized CPluginMetaData[] metaData(String name, String[] only) {
        Entry e = objects.get(key(name));
        List<CPluginMetaData> out = new ArrayList<>();
        if (e != null) {
            List<String> wanted = only == null ? null : Arrays.asList(only).stream().map(ObjectStore::key).toList();
            for (Map.Entry<String, String> p : e.meta.entrySet()) {
                if (wanted == null || wanted.contains(p.getKey())) {
                    out.add(new CPluginMetaData(p.getKey(), p.getValue()));
                }
            }
        }
        return out.toArray(new CPluginMetaData[0]);
    }

    /** The object's bytes (the stored array itself, not to be changed), or null when it is unknown. */
    public synchronized byte[] data(String name) {
        Entry e = objects.get(key(name));
        return e == null ? null : e.data;
    }

    public synchronized boolean exists(String name) {
        return objects.containsKey(key(name));
    }

    public synchronized boolean remove(String name) {
        return objects.remove(key(name)) != null;
    }

    /** The names that start with `prefix`, in ascending order. */
    public synchronized List<String> namesStartingWith(String prefix) {
        String p = key(prefix);
        List<String> out = new ArrayList<>();
        for (String n : objects.tailMap(p, true).keySet()) {
            if (!n.startsWith(p)) {
                break;
            }
            out.add(n);
        }
        return out;
    }

    public synchronized long totalBytes() {
        long total = 0;
        for (Entry e : objects.values()) {
            total += e.data.length;
        }
        return total;
    }

    public synchronized long storageKeyGeneration() {
        return keyGeneration;
    }

    public synchronized long nextStorageKeyGeneration() {
        return ++keyGeneration;
    }
}
