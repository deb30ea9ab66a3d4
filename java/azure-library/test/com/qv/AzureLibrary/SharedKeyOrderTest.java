package com.qv.AzureLibrary;

import static com.qv.AzureLibrary.TestSupport.asMap;
import static com.qv.AzureLibrary.TestSupport.assertOk;
import static com.qv.AzureLibrary.TestSupport.metaArray;
import static com.qv.AzureLibrary.TestSupport.ordered;
import static com.qv.AzureLibrary.TestSupport.unique;
import static org.junit.jupiter.api.Assertions.assertEquals;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.security.GeneralSecurityException;
import java.util.ArrayList;
import java.util.Base64;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import javax.crypto.Mac;
import javax.crypto.spec.SecretKeySpec;

import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;

/**
 * Metadata names that sort one way by code point and another way as the
 * service sorts them ('_' before digits, any case), signed with Shared Key
 * and checked by Azurite.
 */
class SharedKeyOrderTest {
    private static AzuriteServer azurite;
    private static String container;
    private static QVAzurePlugInLibrary lib;

    @BeforeAll
    static void connect() throws Exception {
        azurite = AzuriteServer.get();
        container = TestSupport.uniqueContainer("keyorder");
        lib = TestSupport.connected(azurite.connectionString(container));
    }

    @AfterAll
    static void drop() {
        TestSupport.dropContainer(lib);
    }

    /**
     * a1 / a_1 and qv2 / qv_x (stored as qv_ and hex) and names in upper
     * case (stored as qv_ and hex too) written, read, listed, one changed.
     */
    @Test
    void namesThatSortDifferentlyAreWrittenReadListedAndChanged() {
        String name = unique("order/");
        Map<String, String> meta = ordered("a1", "one", "a_1", "two", "qv2", "three", "qv_x", "four",
                                           "Owner", "five", "owner_2", "six", "OWNER2", "seven");
        assertOk(lib.WriteObject(name, new byte[10], 10, metaArray(meta)), "WriteObject with the names");
        assertEquals(meta, asMap(lib.GetObjectMetaData(name).values));

        assertOk(lib.SetObjectMetaData(name, "a_2", "eight"), "SetObjectMetaData sends every name again");
        Map<String, String> after = new LinkedHashMap<>(meta);
        after.put("a_2", "eight");
        assertEquals(after, asMap(lib.GetObjectMetaData(name).values));

        CRetGetSubMetaDataList listed = lib.GetObjectSubList(name);
        assertOk(listed, "GetObjectSubList");
        assertEquals(TestSupport.listedInTier(after, "Hot"), asMap(listed.metaDat[0].metaDat));

        String big = unique("order/big-");
        assertOk(lib.WriteObject(big, new byte[QVAzurePlugInLibrary.SINGLE_PUT_LIMIT + 1],
                                 QVAzurePlugInLibrary.SINGLE_PUT_LIMIT + 1, metaArray(meta)),
                 "a block upload commits with the names");
        assertEquals(meta, asMap(lib.GetObjectMetaData(big).values));
    }

    /**
     * A Put Blob with raw header names in mixed case, signed by the
     * library's signer, is taken; the same request with its x-ms- headers
     * listed in code-point order is refused: Azurite checks the order, and
     * the signer's is the one it expects.
     */
    @Test
    void mixedCaseNamesSignedInTheServiceOrderAreTakenInCodePointOrderRefused() throws Exception {
        Map<String, String> headers = new LinkedHashMap<>();
        headers.put("X-MS-Meta-A1", "1");
        headers.put("x-ms-meta-a_1", "2");
        headers.put("X-Ms-Meta-QV2", "3");
        headers.put("x-ms-META-qv_x", "4");
        headers.putAll(RawBlobRequests.headers("x-ms-blob-type", "BlockBlob"));
        String path = "/" + AzuriteServer.ACCOUNT + "/" + container + "/" + unique("raw-");
        assertEquals(201, put(path, headers, RawBlobRequests.sign("PUT", path, null, headers, 3)));
        assertEquals(403, put(path + "-2", headers, codePointSignature(path + "-2", headers)));
    }

    private static int put(String path, Map<String, String> headers, String authorization) throws IOException {
        return RawBlobRequests.send(azurite.port, "PUT", path, null, headers, new byte[3], authorization).status;
    }

    /** The Shared Key signature with the x-ms- headers sorted by code point, as the library once did. */
    private static String codePointSignature(String path, Map<String, String> headers)
        throws GeneralSecurityException {
        List<String> names = new ArrayList<>();
        Map<String, String> lower = new LinkedHashMap<>();
        headers.forEach((k, v) -> lower.put(k.toLowerCase(Locale.ROOT), v));
        names.addAll(lower.keySet());
        names.sort(null);
        StringBuilder sb = new StringBuilder("PUT\n\n\n3\n\n\n\n\n\n\n\n\n");
        for (String n : names) {
            sb.append(n).append(':').append(lower.get(n)).append('\n');
        }
        sb.append('/').append(AzuriteServer.ACCOUNT).append(path);
        Mac mac = Mac.getInstance("HmacSHA256");
        mac.init(new SecretKeySpec(Base64.getDecoder().decode(AzuriteServer.KEY), "HmacSHA256"));
        return "SharedKey " + AzuriteServer.ACCOUNT + ":"
            + Base64.getEncoder().encodeToString(mac.doFinal(sb.toString().getBytes(StandardCharsets.UTF_8)));
    }
}
