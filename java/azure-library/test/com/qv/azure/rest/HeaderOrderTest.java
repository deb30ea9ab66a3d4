package com.qv.azure.rest;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.ArrayList;
import java.util.Collections;
import java.util.List;
import java.util.Map;
import java.util.Random;

import org.junit.jupiter.api.Test;

/** The order of x-ms- headers in a Shared Key string to sign, as the service orders them. */
class HeaderOrderTest {
    /**
     * The order the service printed in its own string to sign for these
     * names (test, then hyphens and underscores in every arrangement), with
     * the fixed headers around them.
     */
    private static final List<String> SERVICE_ORDER = List.of(
        "x-ms-blob-type", "x-ms-client-request-id", "x-ms-date",
        "x-ms-meta-test", "x-ms-meta-test-", "x-ms-meta-test--", "x-ms-meta-test_-", "x-ms-meta-test-_",
        "x-ms-meta-test__", "x-ms-meta-test_a", "x-ms-meta-test_a-", "x-ms-meta-test-_a", "x-ms-meta-test_a_",
        "x-ms-meta-test_a-_", "x-ms-meta-test_z", "x-ms-meta-test-a", "x-ms-version");

    @Test
    void sortsAsTheServiceDoesFromAnyStartingOrder() {
        Random random = new Random(7);
        for (int round = 0; round < 50; ++round) {
            List<String> shuffled = new ArrayList<>(SERVICE_ORDER);
            Collections.shuffle(shuffled, random);
            shuffled.sort(HeaderOrder.INSTANCE);
            assertEquals(SERVICE_ORDER, shuffled, "round " + round);
        }
    }

    @Test
    void underscoreBeforeDigitsBeforeLetters() {
        List<String> names = new ArrayList<>(List.of("x-ms-meta-a1", "x-ms-meta-ab", "x-ms-meta-a_1",
                                                     "x-ms-meta-qv2", "x-ms-meta-qv_x", "x-ms-meta-qva"));
        names.sort(HeaderOrder.INSTANCE);
        assertEquals(List.of("x-ms-meta-a_1", "x-ms-meta-a1", "x-ms-meta-ab", "x-ms-meta-qv_x", "x-ms-meta-qv2",
                             "x-ms-meta-qva"), names);
        // Code points say the opposite for both pairs: this is where plain sorting went wrong.
        assertTrue("x-ms-meta-a1".compareTo("x-ms-meta-a_1") < 0);
        assertTrue("x-ms-meta-qv2".compareTo("x-ms-meta-qv_x") < 0);
    }

    @Test
    void aConsistentOrder() {
        List<String> all = new ArrayList<>(SERVICE_ORDER);
        all.addAll(List.of("x-ms-meta-a1", "x-ms-meta-a_1", "x-ms-meta-A1", "x-ms-meta-'a", "x-ms-meta-a'"));
        for (String a : all) {
            assertEquals(0, HeaderOrder.INSTANCE.compare(a, a), a);
            for (String b : all) {
                assertEquals(Integer.signum(HeaderOrder.INSTANCE.compare(a, b)),
                             -Integer.signum(HeaderOrder.INSTANCE.compare(b, a)), a + " / " + b);
            }
        }
    }

    /** The signer lower-cases names before it orders them, whatever case the request gave them. */
    @Test
    void theSignerListsMixedCaseNamesLowerCasedInTheServiceOrder() {
        SharedKeySigner s = new SharedKeySigner("acct", new byte[] {1, 2, 3});
        String toSign = s.stringToSign("PUT", "/c/b", null,
                                       Map.of("X-MS-Meta-QV2", "1", "x-ms-meta-A1", "2", "x-ms-meta-a_1", "3",
                                              "X-Ms-Meta-Qv_X", "4", "x-ms-date", "d", "x-ms-version", "v"), 0);
        assertTrue(toSign.endsWith("\nx-ms-date:d\nx-ms-meta-a_1:3\nx-ms-meta-a1:2\nx-ms-meta-qv_x:4\n"
                                   + "x-ms-meta-qv2:1\nx-ms-version:v\n/acct/c/b"), toSign);
    }
}
