package com.qv.azure.rest;

import com.qv.QVCloudPluginInterface.ERRORID;

import java.io.ByteArrayInputStream;
import java.io.IOException;
import java.util.ArrayList;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.TreeMap;
import javax.xml.XMLConstants;
import javax.xml.parsers.DocumentBuilder;
import javax.xml.parsers.DocumentBuilderFactory;
import javax.xml.parsers.ParserConfigurationException;
import org.w3c.dom.Document;
import org.w3c.dom.Element;
import org.w3c.dom.Node;
import org.w3c.dom.NodeList;
import org.xml.sax.SAXException;

/**
 * The XML the Blob service answers: error bodies, List Blobs and List
 * Containers pages. The parser refuses document type declarations and
 * external entities; what it reads is untrusted like any answer.
 */
final class BlobXml {
    private BlobXml() {
    }

    static Document parse(byte[] body) throws StorageException {
        try {
            DocumentBuilderFactory f = DocumentBuilderFactory.newInstance();
            f.setFeature(XMLConstants.FEATURE_SECURE_PROCESSING, true);
            f.setFeature("http://apache.org/xml/features/disallow-doctype-decl", true);
            f.setExpandEntityReferences(false);
            DocumentBuilder db = f.newDocumentBuilder();
            return db.parse(new ByteArrayInputStream(body));
        } catch (ParserConfigurationException | SAXException | IOException e) {
            throw new StorageException(ERRORID.INTERNAL_ERROR, 0, null, "unreadable XML answer: " + e, e);
        }
    }

    /** The service's error code (the text of the first Code element) in an error body, or null. */
    static String errorCode(byte[] body) {
        if (body == null || body.length == 0) {
            return null;
        }
        try {
            NodeList l = parse(body).getElementsByTagName("Code");
            return l.getLength() == 0 ? null : l.item(0).getTextContent();
        } catch (StorageException e) {
            return null;
        }
    }

    /** A List Blobs page: its blobs and the marker of the next page. */
    static BlobPage blobPage(byte[] body, String marker) throws StorageException {
        Document doc = parse(body);
        List<BlobPage.Item> items = new ArrayList<>();
        NodeList blobs = doc.getElementsByTagName("Blob");
        for (int i = 0; i < blobs.getLength(); ++i) {
            Element b = (Element) blobs.item(i);
            String name = childText(b, "Name");
            long size = 0;
            String tier = null;
            String archiveStatus = null;
            String priority = null;
            Element props = child(b, "Properties");
            if (props != null) {
                tier = nonEmpty(childText(props, "AccessTier"));
                archiveStatus = nonEmpty(childText(props, "ArchiveStatus"));
                priority = nonEmpty(childText(props, "RehydratePriority"));
                String len = childText(props, "Content-Length");
                if (len != null && !len.isEmpty()) {
                    try {
                        size = Long.parseLong(len.trim());
                    } catch (NumberFormatException e) {
                        throw new StorageException(ERRORID.INTERNAL_ERROR, "unreadable Content-Length in a listing");
                    }
                }
            }
            Map<String, String> meta = new TreeMap<>();
            Element m = child(b, "Metadata");
            if (m != null) {
                for (Node n = m.getFirstChild(); n != null; n = n.getNextSibling()) {
                    if (n instanceof Element) {
                        meta.put(n.getNodeName().toLowerCase(Locale.ROOT), n.getTextContent());
                    }
                }
            }
            items.add(new BlobPage.Item(name, size, meta, tier, archiveStatus, priority));
        }
        return new BlobPage(items, nextMarker(doc, marker));
    }

    /** A List Containers page: the names into {@code into}; answers the marker of the next page. */
    static String containerPage(byte[] body, String marker, List<String> into) throws StorageException {
        Document doc = parse(body);
        NodeList list = doc.getElementsByTagName("Container");
        for (int i = 0; i < list.getLength(); ++i) {
            String n = childText((Element) list.item(i), "Name");
            if (n != null) {
                into.add(n);
            }
        }
        return nextMarker(doc, marker);
    }

    /**
     * The continuation marker of a listing page, or null at the end. A
     * service that answers the marker it was given would make the listing go
     * round for ever; that is refused.
     */
    private static String nextMarker(Document doc, String previous) throws StorageException {
        String next = childText(doc.getDocumentElement(), "NextMarker");
        if (next == null || next.isEmpty()) {
            return null;
        }
        if (next.equals(previous)) {
            throw new StorageException(ERRORID.INTERNAL_ERROR, "the listing answered the marker it was given");
        }
        return next;
    }

    private static Element child(Element parent, String name) {
        for (Node n = parent.getFirstChild(); n != null; n = n.getNextSibling()) {
            if (n instanceof Element && n.getNodeName().equals(name)) {
                return (Element) n;
            }
        }
        return null;
    }

    private static String childText(Element parent, String name) {
        Element c = child(parent, name);
        return c == null ? null : c.getTextContent();
    }

    /** The text trimmed, or null when there is none. */
    private static String nonEmpty(String text) {
        if (text == null) {
            return null;
        }
        String t = text.trim();
        return t.isEmpty() ? null : t;
    }
}
