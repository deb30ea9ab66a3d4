package com.qv.AzureLibrary;

import com.qv.azure.rest.SharedKeySigner;

import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.net.HttpURLConnection;
import java.net.URL;
import java.nio.charset.StandardCharsets;
import java.time.ZoneOffset;
import java.time.ZonedDateTime;
import java.time.format.DateTimeFormatter;
import java.util.Base64;
import java.util.LinkedHashMap;
import java.util.Map;

/**
 * Requests to the test run's Azurite that the library does not make
 * (snapshots, listings with snapshots, headers in any case), signed with
 * the run's account key by the library's signer, or with a signature the
 * caller gives.
 */
final class RawBlobRequests {
    /** Status and body of an answer. */
    static final class Answer {
        final int status;
        final String body;

        Answer(int status, String body) {
            this.status = status;
            this.body = body;
        }
    }

    private RawBlobRequests() {
    }

    /** Headers every request needs: x-ms-date now and x-ms-version, after the given ones. */
    static Map<String, String> headers(String... namesAndValues) {
        Map<String, String> h = TestSupport.ordered(namesAndValues);
        h.put("x-ms-date", DateTimeFormatter.RFC_1123_DATE_TIME.format(ZonedDateTime.now(ZoneOffset.UTC)));
        h.put("x-ms-version", "2021-12-02");
        return h;
    }

    /** The library's Shared Key signature of the request with the run's key. */
    static String sign(String method, String path, String query, Map<String, String> headers, int bodyLength) {
        SharedKeySigner signer = new SharedKeySigner(AzuriteServer.ACCOUNT,
                                                     Base64.getDecoder().decode(AzuriteServer.KEY));
        return signer.authorization(method, path, query, headers, bodyLength);
    }

    /** Sends a request signed by the library's signer; the path starts with the account. */
    static Answer send(int port, String method, String path, String query, Map<String, String> headers, byte[] body)
        throws IOException {
        return send(port, method, path, query, headers, body,
                    sign(method, path, query, headers, body == null ? 0 : body.length));
    }

    static Answer send(int port, String method, String path, String query, Map<String, String> headers, byte[] body,
                       String authorization) throws IOException {
        HttpURLConnection http = (HttpURLConnection) new URL("http://127.0.0.1:" + port + path
                                                              + (query == null ? "" : "?" + query)).openConnection();
        http.setRequestMethod(method);
        new LinkedHashMap<>(headers).forEach(http::setRequestProperty);
        http.setRequestProperty("Authorization", authorization);
        if (body != null) {
            http.setDoOutput(true);
            http.setFixedLengthStreamingMode(body.length);
            try (OutputStream out = http.getOutputStream()) {
                out.write(body);
            }
        }
        int status = http.getResponseCode();
        InputStream in = status >= 400 ? http.getErrorStream() : http.getInputStream();
        String text = in == null ? "" : new String(in.readAllBytes(), StandardCharsets.UTF_8);
        http.disconnect();
        return new Answer(status, text);
    }
}
