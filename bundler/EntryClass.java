package bundler;

import static java.nio.charset.StandardCharsets.ISO_8859_1;

import java.io.ByteArrayOutputStream;
import java.io.DataOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.net.URL;
import java.net.URLClassLoader;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.LocalDateTime;
import java.util.List;
import java.util.Map;
import java.util.zip.ZipEntry;
import java.util.zip.ZipOutputStream;

/**
 * The entry class that calls an application's ordinary main. It is compiled once, against a class
 * Application in its own package, and completed here: in its constant pool, the name of the
 * application's class takes the place of Application's. It is as fast as a compiled call, and it
 * works for classes without a package, too. Where such a call is not allowed, or would not
 * initialise the class, the class Application is added, which calls main by reflection.
 *
 * @param mainClass the application's class, with points in its name
 * @param declaringClass the class that contains main: mainClass or a superclass
 * @param isDirect whether main can be called without reflection
 */
record EntryClass(String mainClass, String declaringClass, boolean isDirect) {
  private static final String PACKAGE = "com/norvale/app/daemon/entry/";
  /** The name by which a JVM finds the entry class. */
  static final String NAME = PACKAGE + "NativeLauncher";
  /** Its file in a jar. */
  static final String FILE = NAME + ".class";
  private static final String CALLED_CLASS = PACKAGE + "Application";

  /** Finds main in the jars as a JVM does, but runs none of their code. */
  static EntryClass calling(String mainClass, List<Path> jars) throws IOException {
    URL[] urls = new URL[jars.size()];
    for (int i = 0; i < urls.length; i++) {
      urls[i] = jars.get(i).toUri().toURL();
    }
    try (URLClassLoader loader =
        new URLClassLoader(urls, ClassLoader.getPlatformClassLoader())) {
      Class<?> type = Class.forName(mainClass, false, loader);
      if (type.getClassLoader() != loader) {
        throw new UserError("--main-class " + mainClass + " is a class of the JDK");
      }
      Method main = mainOf(type);
      boolean isDirect = main.getDeclaringClass() == type && !type.isInterface()
          && Modifier.isPublic(type.getModifiers()) && Modifier.isPublic(main.getModifiers());
      return new EntryClass(mainClass, main.getDeclaringClass().getName(), isDirect);
    } catch (ClassNotFoundException e) {
      throw new UserError("no jar contains the class of --main-class " + mainClass);
    } catch (LinkageError e) {
      throw new UserError("the class of --main-class " + mainClass + " cannot be loaded: " + e);
    }
  }

  private static Method mainOf(Class<?> type) {
    for (Class<?> declaring = type; declaring != null; declaring = declaring.getSuperclass()) {
      for (Method method : declaring.getDeclaredMethods()) {
        int modifiers = method.getModifiers();
        if (method.getName().equals("main") && method.getReturnType() == void.class
            && List.of(method.getParameterTypes()).equals(List.of(String[].class))
            && Modifier.isStatic(modifiers) && !Modifier.isPrivate(modifiers)) {
          return method;
        }
      }
    }
    throw new UserError(
        "--main-class " + type.getName() + " has no method static void main(String[])");
  }

  void writeJar(Path jar) throws IOException {
    try (ZipOutputStream zip = new ZipOutputStream(Files.newOutputStream(jar))) {
      if (isDirect) {
        add(zip, NAME, Map.of(CALLED_CLASS, mainClass.replace('.', '/')));
      } else {
        add(zip, NAME, Map.of());
        add(zip, CALLED_CLASS, Map.of("MAIN CLASS", mainClass, "DECLARING CLASS", declaringClass));
      }
    }
  }

  /** Adds a class in whose constant pool some texts are replaced. */
  private static void add(ZipOutputStream zip, String name, Map<String, String> replacements)
      throws IOException {
    String bytes; // one character for each byte
    try (InputStream file = EntryClass.class.getResourceAsStream("/" + name + ".class")) {
      bytes = new String(file.readAllBytes(), ISO_8859_1);
    }
    for (Map.Entry<String, String> replacement : replacements.entrySet()) {
      bytes = bytes.replace(constant(replacement.getKey()), constant(replacement.getValue()));
    }
    ZipEntry entry = new ZipEntry(name + ".class");
    entry.setTimeLocal(LocalDateTime.of(2000, 1, 1, 0, 0)); // so that each run gives the same bytes
    zip.putNextEntry(entry);
    zip.write(bytes.getBytes(ISO_8859_1));
  }

  /** A text as it stands in a constant pool: its length, and then itself. */
  private static String constant(String text) throws IOException {
    ByteArrayOutputStream bytes = new ByteArrayOutputStream();
    new DataOutputStream(bytes).writeUTF(text);
    return bytes.toString(ISO_8859_1);
  }
}
