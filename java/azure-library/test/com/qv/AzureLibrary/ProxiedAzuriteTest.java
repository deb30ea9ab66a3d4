package com.qv.AzureLibrary;

import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeAll;

/**
 * What the tests that put the fault proxy between the library and Azurite
 * share: the test run's Azurite, a proxy in front of it, a container of the
 * test class's own, a library straight to Azurite that sets up and checks
 * what the proxied ones did, and a library through the proxy per test.
 */
abstract class ProxiedAzuriteTest {
    static AzuriteServer azurite;
    static FaultProxy proxy;
    static String container;
    /** Straight to Azurite: sets up and checks what the proxied libraries did. */
    static QVAzurePlugInLibrary direct;
    QVAzurePlugInLibrary lib;

    @BeforeAll
    static void startProxy() throws Exception {
        azurite = AzuriteServer.get();
        proxy = new FaultProxy(azurite.port);
        container = TestSupport.uniqueContainer("proxied");
        direct = TestSupport.connected(azurite.connectionString(container));
    }

    @AfterAll
    static void stopProxy() throws Exception {
        TestSupport.dropContainer(direct);
        proxy.close();
    }

    @AfterEach
    void disconnect() {
        if (lib != null) {
            lib.AzureDeInit();
            lib = null;
        }
        proxy.reset();
    }

    /** A library whose requests go through the proxy, with the given keys; no rules yet. */
    QVAzurePlugInLibrary viaProxy(String options) {
        lib = TestSupport.connected(AzuriteServer.connectionString(container, proxy.port(), options));
        proxy.reset();
        return lib;
    }
}
