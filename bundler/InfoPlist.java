package bundler;

import java.io.IOException;
import java.io.InputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Optional;
import java.util.Properties;
import javax.xml.parsers.DocumentBuilder;
import javax.xml.parsers.DocumentBuilderFactory;
import javax.xml.parsers.ParserConfigurationException;
import javax.xml.transform.OutputKeys;
import javax.xml.transform.Transformer;
import javax.xml.transform.TransformerException;
import javax.xml.transform.TransformerFactory;
import javax.xml.transform.dom.DOMSource;
import javax.xml.transform.stream.StreamResult;
import org.w3c.dom.Document;
import org.w3c.dom.Element;
import org.w3c.dom.Node;
import org.xml.sax.SAXException;
import org.xml.sax.helpers.DefaultHandler;

/** The bundle's Info.plist, and the environment in it. */
final class InfoPlist {
  /** The variable with JVM options. */
  static final String JVM_OPTIONS = "NORVALED_JVM_ARGS";
  private static final String SWITCH = "KESTREL_AGGRESSIVE_OPTIMIZATIONS";
  private static final int FIRST_VERSION_WITHOUT_SWITCH = 24;
  private static final String DEFAULT_IDENTIFIER = "com.norvale.kestrel";

  /** The application's variables, which it gets while it is recorded, too. */
  final Map<String, String> environment = new LinkedHashMap<>();
  /** The application's name, which is also the name of the bundle. */
  final String name;
  private final Document document = newDocumentBuilder().newDocument();
  private final Map<String, Element> values = new LinkedHashMap<>();

  /** @param runtimeVersion of the bundle's Java runtime, if it has one */
  InfoPlist(Options options, Optional<Integer> runtimeVersion) throws IOException {
    name = options.checked("--name", "[^/:\\p{Cntrl}.][^/:\\p{Cntrl}]*",
        "a file name that contains no colon and does not begin with a dot").orElse("Kestrel");
    addGeneratedKeys(options);
    addVariables(options);
    Optional<Path> given = options.path("--info-plist");
    if (given.isPresent()) {
      addKeys(given.get());
    }
    if (runtimeVersion.isPresent() && runtimeVersion.get() < FIRST_VERSION_WITHOUT_SWITCH) {
      environment.putIfAbsent(SWITCH, "0"); // these JVMs reject one of the default options
    }
  }

  private void addGeneratedKeys(Options options) throws IOException {
    String version = options.checked("--app-version", "[0-9]+(\\.[0-9]+){0,2}",
        "one to three numbers separated by dots").orElse(ofLauncher("launcher"));
    put("CFBundleDevelopmentRegion", "string", "en");
    put("CFBundleExecutable", "string", Layout.LAUNCHER);
    Optional<Path> icon = options.path("--icon");
    if (icon.isPresent()) {
      checkIcon(icon.get());
      put("CFBundleIconFile", "string", icon.get().getFileName().toString());
    }
    put("CFBundleIdentifier", "string", options.checked("--mac-package-identifier",
        "[A-Za-z0-9.-]+", "made of letters, digits, dots and hyphens").orElse(DEFAULT_IDENTIFIER));
    put("CFBundleInfoDictionaryVersion", "string", "6.0");
    put("CFBundleName", "string", name);
    put("CFBundlePackageType", "string", "APPL");
    put("CFBundleShortVersionString", "string", version);
    put("CFBundleVersion", "string", version);
    put("LSMinimumSystemVersion", "string", ofLauncher("macos"));
    put("NSHighResolutionCapable", "true", "");
  }

  private void addVariables(Options options) {
    if (options.has("--java-options")) {
      addVariable(JVM_OPTIONS, String.join(" ", options.all("--java-options")));
    }
    for (String variable : options.all("--env")) {
      int end = variable.indexOf('=');
      if (end < 0) {
        throw new UserError("--env must be NAME=VALUE: " + variable);
      }
      addVariable(variable.substring(0, end), variable.substring(end + 1));
    }
  }

  private void addVariable(String name, String value) {
    if (!name.matches("[A-Za-z_][A-Za-z0-9_]*") || !value.matches("\\P{Cntrl}*")) {
      throw new UserError("a variable's name must be made of letters, digits and _, and its value"
          + " must not contain control characters: " + name);
    }
    if (environment.putIfAbsent(name, value) != null) {
      throw new UserError("the variable " + name + " is given twice");
    }
  }

  /** A version that belongs to the launcher. */
  private static String ofLauncher(String name) throws IOException {
    try (InputStream file = InfoPlist.class.getResourceAsStream("/versions.properties")) {
      Properties versions = new Properties();
      versions.load(file);
      return versions.getProperty(name);
    }
  }

  private static void checkIcon(Path icon) throws IOException {
    if (!Files.isRegularFile(icon)) {
      throw new UserError("--icon must be a file: " + icon);
    }
    if (!FileTrees.readIfExists(icon).startsWith("icns")) {
      throw new UserError("--icon must be an .icns file: " + icon);
    }
  }

  private void put(String key, String type, String text) {
    Element value = document.createElement(type);
    value.setTextContent(text);
    values.put(key, value);
  }

  /** Adds the keys of a property list that the user has written. */
  private void addKeys(Path file) throws IOException {
    if (!Files.isRegularFile(file)) {
      throw new UserError("--info-plist must be a file: " + file);
    }
    if (FileTrees.readIfExists(file).startsWith("bplist")) {
      throw new UserError(file + " is a binary property list; convert it: plutil -convert xml1 "
          + file);
    }
    Element root;
    try {
      root = newDocumentBuilder().parse(file.toFile()).getDocumentElement();
    } catch (SAXException e) {
      throw new UserError(file + " cannot be read: " + e.getMessage());
    }
    List<Element> content = children(root);
    if (!root.getTagName().equals("plist") || content.size() != 1) {
      throw new UserError(file + " is not a property list");
    }
    Map<String, Element> keys = dictionary(content.get(0), file);
    if (keys.containsKey("CFBundleExecutable")) {
      throw new UserError(file + " must not contain CFBundleExecutable");
    }
    Element variables = keys.remove("LSEnvironment");
    if (variables != null) {
      dictionary(variables, file).forEach((name, value) -> {
        if (!value.getTagName().equals("string")) {
          throw new UserError(file + ": the value of " + name + " must be a string");
        }
        addVariable(name, value.getTextContent());
      });
    }
    keys.forEach((key, value) -> values.put(key, (Element) document.importNode(value, true)));
  }

  /** The keys of a dictionary, in which each key precedes its value. */
  private static Map<String, Element> dictionary(Element dictionary, Path file) {
    List<Element> content = children(dictionary);
    boolean isValid = dictionary.getTagName().equals("dict") && content.size() % 2 == 0;
    Map<String, Element> keys = new LinkedHashMap<>();
    for (int i = 0; isValid && i < content.size(); i += 2) {
      isValid = content.get(i).getTagName().equals("key")
          && keys.put(content.get(i).getTextContent(), content.get(i + 1)) == null;
    }
    if (!isValid) {
      throw new UserError(
          file + " is not a property list: each key must be there once, and have a value");
    }
    return keys;
  }

  private static List<Element> children(Element parent) {
    List<Element> children = new ArrayList<>();
    for (Node node = parent.getFirstChild(); node != null; node = node.getNextSibling()) {
      if (node instanceof Element element) {
        children.add(element);
      }
    }
    return children;
  }

  /** Tells the user what may not be as intended. */
  void warn(Options options) {
    boolean isDefault = values.get("CFBundleIdentifier").getTextContent()
        .equals(DEFAULT_IDENTIFIER);
    if (options.has("--name") && isDefault) {
      Output.warn("without --mac-package-identifier, a Mac takes this application for every other"
          + " one with the default identifier");
    }
  }

  void write(Path file) throws IOException {
    Element dictionary = document.createElement("dict");
    values.forEach((key, value) -> add(dictionary, key, value));
    if (!environment.isEmpty()) {
      Element variables = document.createElement("dict");
      environment.forEach((key, text) -> {
        Element value = document.createElement("string");
        value.setTextContent(text);
        add(variables, key, value);
      });
      add(dictionary, "LSEnvironment", variables);
    }
    Element root = document.createElement("plist");
    root.setAttribute("version", "1.0");
    root.appendChild(dictionary);
    document.setXmlStandalone(true); // otherwise the first line says standalone="no"
    document.appendChild(root);
    removeIndentation(root);
    try {
      Transformer writer = TransformerFactory.newInstance().newTransformer();
      writer.setOutputProperty(OutputKeys.INDENT, "yes");
      writer.setOutputProperty(OutputKeys.DOCTYPE_PUBLIC, "-//Apple//DTD PLIST 1.0//EN");
      writer.setOutputProperty(
          OutputKeys.DOCTYPE_SYSTEM, "http://www.apple.com/DTDs/PropertyList-1.0.dtd");
      writer.transform(new DOMSource(document), new StreamResult(file.toFile()));
    } catch (TransformerException e) {
      throw new IOException("Info.plist cannot be written: " + e.getMessage(), e);
    }
  }

  private void add(Element dictionary, String name, Element value) {
    Element key = document.createElement("key");
    key.setTextContent(name);
    dictionary.appendChild(key);
    dictionary.appendChild(value);
  }

  /** The writer would keep the user's indentation and add its own. */
  private static void removeIndentation(Element parent) {
    List<Element> children = children(parent);
    if (!children.isEmpty()) {
      for (Node node = parent.getFirstChild(); node != null;) {
        Node next = node.getNextSibling();
        if (!(node instanceof Element)) {
          parent.removeChild(node);
        }
        node = next;
      }
      children.forEach(InfoPlist::removeIndentation);
    }
  }

  /** Parses without the network: Apple's usual DOCTYPE names a file there. */
  private static DocumentBuilder newDocumentBuilder() {
    try {
      DocumentBuilderFactory factory = DocumentBuilderFactory.newInstance();
      factory.setFeature("http://apache.org/xml/features/nonvalidating/load-external-dtd", false);
      DocumentBuilder builder = factory.newDocumentBuilder();
      builder.setErrorHandler(new DefaultHandler()); // which prints nothing
      builder.setEntityResolver((name, address) -> {
        throw new SAXException("it refers to " + address);
      });
      return builder;
    } catch (ParserConfigurationException e) {
      throw new IllegalStateException(e);
    }
  }
}
