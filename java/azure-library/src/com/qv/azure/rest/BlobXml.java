package com.qv.azure.rest;

import com.qv.QVCloudPluginInterface.ERRORID;

import java.io.ByteArrayInputStream;
import java.io.IOException;
import java.io.InputStream;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.TreeMap;
import java.util.function.Consumer;
import javax.xml.XMLConstants;
import javax.xml.parsers.DocumentBuilder;
import javax.xml.parsers.DocumentBuilderFactory;
import javax.xml.parsers.ParserConfigurationException;
import javax.xml.stream.XMLInputFactory;
import javax.xml.stream.XMLStreamConstants;
import javax.xml.stream.XMLStreamException;
import javax.xml.stream.XMLStreamReader;
import org.w3c.dom.Document;
import org.w3c.dom.Element;
import org.w3c.dom.Node;
import org.w3c.dom.NodeList;
import org.xml.sax.SAXException;

/**
 * The XML the Blob service answers: error bodies and List Containers pages
 * (small, read whole), and List Blobs pages (read as a stream, see
 * {@link #blobPage}). The parsers refuse document type declarations and
 * external entities; what they read is untrusted like any answer.
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

    /**
     * A List Blobs page read as it arrives, without holding it whole: each
     * blob is handed to {@code each} as soon as its element ends; answers
     * the marker of the next page (null at the end). The reader refuses
     * document type declarations and external entities.
     *
     * @throws IOException when the answer broke off (a page to ask for again)
     * @throws StorageException INTERNAL_ERROR for a page that is not a listing
     */
    static String blobPage(InputStream in, String marker, Consumer<BlobPage.Item> each)
        throws IOException, StorageException {
        XMLStreamReader x = null;
        try {
            x = XML_INPUT.createXMLStreamReader(in);
            String next = null;
            int depth = 0;
            while (x.hasNext()) {
                int event = x.next();
                if (event == XMLStreamConstants.END_ELEMENT) {
                    --depth;
                } else if (event == XMLStreamConstants.START_ELEMENT) {
                    ++depth;
                    String name = x.getLocalName();
                    if (depth == 2 && name.equals("NextMarker")) {
                        next = x.getElementText();
                        --depth;
                    } else if (depth == 3 && name.equals("Blob")) {
                        each.accept(blob(x));
                        --depth;
                    }
                }
            }
            return checkedMarker(next, marker);
        } catch (XMLStreamException e) {
            Throwable cause = e.getNestedException() != null ? e.getNestedException() : e.getCause();
            if (cause instanceof IOException) {
                throw (IOException) cause;
            }
            throw new StorageException(ERRORID.INTERNAL_ERROR, 0, null, "unreadable listing: " + e.getMessage(), e);
        } finally {
            if (x != null) {
                try {
                    x.close();
                } catch (XMLStreamException e) {
                    // nothing held
                }
            }
        }
    }

    /** One Blob element, the reader on its start; leaves the reader on its end. */
    private static BlobPage.Item blob(XMLStreamReader x) throws XMLStreamException, StorageException {
        String name = null;
        long size = 0;
        String tier = null;
        String archiveStatus = null;
        String priority = null;
        String immutableUntil = null;
        String immutabilityMode = null;
        String legalHold = null;
        String tierChanged = null;
        Map<String, String> meta = new TreeMap<>();
        String section = null;
        int depth = 0;
        while (x.hasNext()) {
            int event = x.next();
            if (event == XMLStreamConstants.END_ELEMENT) {
                if (depth == 0) {
                    break; // </Blob>
                }
                --depth;
                section = depth == 0 ? null : section;
            } else if (event == XMLStreamConstants.START_ELEMENT) {
                String el = x.getLocalName();
                if (depth == 0 && (el.equals("Properties") || el.equals("Metadata"))) {
                    section = el;
                    ++depth;
                } else if (depth == 0 && el.equals("Name")) {
                    name = x.getElementText();
                } else if (depth == 1 && "Metadata".equals(section)) {
                    meta.put(el.toLowerCase(Locale.ROOT), x.getElementText());
                } else if (depth == 1 && "Properties".equals(section)) {
                    switch (el) {
                        case "Content-Length":
                            size = length(x.getElementText());
                            break;
                        case "AccessTier":
                            tier = StorageConnection.canonicalTierOr(nonEmpty(x.getElementText()));
                            break;
                        case "ArchiveStatus":
                            archiveStatus = nonEmpty(x.getElementText());
                            break;
                        case "RehydratePriority":
                            priority = nonEmpty(x.getElementText());
                            break;
                        case "ImmutabilityPolicyUntilDate":
                            immutableUntil = nonEmpty(x.getElementText());
                            break;
                        case "ImmutabilityPolicyMode":
                            immutabilityMode = nonEmpty(x.getElementText());
                            break;
                        case "LegalHold":
                            legalHold = nonEmpty(x.getElementText());
                            break;
                        case "AccessTierChangeTime":
                            tierChanged = nonEmpty(x.getElementText());
                            break;
                        default:
                            skip(x);
                    }
                } else {
                    skip(x);
                }
            }
        }
        return new BlobPage.Item(name, size, meta, tier, archiveStatus, priority, immutableUntil, immutabilityMode,
                                 legalHold, tierChanged);
    }

    /** Skips the element the reader is on, whatever it holds. */
    private static void skip(XMLStreamReader x) throws XMLStreamException {
        for (int depth = 1; depth > 0 && x.hasNext(); ) {
            int event = x.next();
            depth += event == XMLStreamConstants.START_ELEMENT ? 1 : event == XMLStreamConstants.END_ELEMENT ? -1 : 0;
        }
    }

    private static long length(String text) throws StorageException {
        if (text == null || text.isBlank()) {
            return 0;
        }
        try {
            return Long.parseLong(text.trim());
        } catch (NumberFormatException e) {
            throw new StorageException(ERRORID.INTERNAL_ERROR, "unreadable Content-Length in a listing");
        }
    }

    private static final XMLInputFactory XML_INPUT = secureInput();

    private static XMLInputFactory secureInput() {
        XMLInputFactory f = XMLInputFactory.newFactory();
        f.setProperty(XMLInputFactory.SUPPORT_DTD, false);
        f.setProperty(XMLInputFactory.IS_SUPPORTING_EXTERNAL_ENTITIES, false);
        return f;
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
        return checkedMarker(childText(doc.getDocumentElement(), "NextMarker"), previous);
    }

    private static String checkedMarker(String next, String previous) throws StorageException {
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
