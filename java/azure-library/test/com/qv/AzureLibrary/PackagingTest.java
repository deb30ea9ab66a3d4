package com.qv.AzureLibrary;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.lang.reflect.Field;
import java.lang.reflect.Method;
import java.net.URL;
import java.net.URLClassLoader;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayDeque;
import java.util.Deque;
import java.util.HashSet;
import java.util.Set;
import java.util.jar.JarFile;

import org.junit.jupiter.api.Test;

/**
 * XNAzurePlugIn.jar on its own is enough for a JVM: the native plug-in's
 * class path has no other jar, so the contract's value classes must be inside.
 * The jar is named by the system property qv.library.jar (set by the ctest).
 */
class PackagingTest {
    private static Path jar() {
        String p = System.getProperty("qv.library.jar");
        assertNotNull(p, "run with -Dqv.library.jar=<XNAzurePlugIn.jar>");
        Path jar = Path.of(p);
        assertTrue(Files.isRegularFile(jar), jar.toString());
        return jar;
    }

    /** A class loader that sees the jar and the JDK, nothing else (no test or application class path). */
    private static URLClassLoader jarOnly() throws Exception {
        return new URLClassLoader(new URL[] {jar().toUri().toURL()}, ClassLoader.getPlatformClassLoader());
    }

    @Test
    void theJarHoldsTheLibraryAndTheContract() throws Exception {
        try (JarFile j = new JarFile(jar().toFile())) {
            for (String c : new String[] {
                "com/qv/AzureLibrary/QVAzurePlugInLibrary.class",
                "com/qv/azure/rest/BlobRestClient.class",
                "com/qv/QVCloudPluginInterface/ERRORID.class",
                "com/qv/QVCloudPluginInterface/CErrorValue.class",
                "com/qv/QVCloudPluginInterface/CloudPluginCapabilities.class",
                "com/qv/AzureLibrary/CPluginInitData.class",
                "com/qv/AmazonLibrary/CIsObjectExistFnValue.class",
                "com/qv/AmazonLibrary/CPluginInitData.class",
                "com/qv/plugin/model/CInt.class",
            }) {
                assertNotNull(j.getEntry(c), c + " in the jar");
            }
        }
    }

    /**
     * Loads the library from the jar alone and every class its public methods
     * take or give, and the classes of their fields, transitively: each must
     * come from the jar's own loader.
     */
    @Test
    void everyTypeOfTheLibrarysMethodsLoadsFromTheJarAlone() throws Exception {
        try (URLClassLoader loader = jarOnly()) {
            Class<?> lib = loader.loadClass("com.qv.AzureLibrary.QVAzurePlugInLibrary");
            assertSame(loader, lib.getClassLoader());
            Deque<Class<?>> todo = new ArrayDeque<>();
            Set<Class<?>> done = new HashSet<>();
            for (Method m : lib.getMethods()) {
                todo.add(m.getReturnType());
                todo.addAll(java.util.List.of(m.getParameterTypes()));
            }
            while (!todo.isEmpty()) {
                Class<?> c = todo.pop();
                while (c.isArray()) {
                    c = c.getComponentType();
                }
                if (!c.getName().startsWith("com.qv.") || !done.add(c)) {
                    continue;
                }
                assertSame(loader, c.getClassLoader(), c.getName());
                for (Field f : c.getFields()) {
                    todo.add(f.getType());
                }
            }
            assertTrue(done.size() > 20, "contract classes reached: " + done.size());
        }
    }

    /** The jar-only library connects, writes and reads back, as the plug-in's JVM would run it. */
    @Test
    void theJarAloneRunsAWriteAndARead() throws Exception {
        AzuriteServer azurite = AzuriteServer.get();
        try (URLClassLoader loader = jarOnly()) {
            Class<?> initData = loader.loadClass("com.qv.AzureLibrary.CPluginInitData");
            Class<?> libClass = loader.loadClass("com.qv.AzureLibrary.QVAzurePlugInLibrary");
            Object lib = libClass.getConstructor(initData)
                .newInstance(initData.getConstructor(String.class, String.class)
                                 .newInstance(TestSupport.INSTALL_FOLDER.toString(), TestSupport.LOG_FOLDER.toString()));
            String container = TestSupport.uniqueContainer("jar");
            Object init = libClass.getMethod("AzureInit", String.class, String.class)
                .invoke(lib, azurite.connectionString(container), TestSupport.INSTALL_FOLDER.toString());
            assertEquals(0, ordinal(init));
            byte[] data = TestSupport.randomBytes(1000, 5);
            Object w = libClass.getMethod("WriteObject", String.class, byte[].class, long.class)
                .invoke(lib, "jar/object", data, 1000L);
            assertEquals(0, ordinal(w));
            byte[] back = new byte[1000];
            Object r = libClass.getMethod("ReadObject", String.class, byte[].class, long.class, long.class)
                .invoke(lib, "jar/object", back, 1000L, 0L);
            assertEquals(0, ordinal(r.getClass().getField("errorValue").get(r)));
            assertEquals(1000L, r.getClass().getField("sizeRead").get(r));
            assertTrue(java.util.Arrays.equals(data, back));
            assertEquals(0, ordinal(libClass.getMethod("DeleteContainer").invoke(lib)));
            libClass.getMethod("AzureDeInit").invoke(lib);
        }
    }

    private static int ordinal(Object errorValue) throws Exception {
        return (Integer) errorValue.getClass().getMethod("getOrdinalValue").invoke(errorValue);
    }
}
