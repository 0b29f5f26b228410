/** The application that the benchmark launches in each kind of bundle. */
public class Hello {
  public static void main(String[] args) {
    System.out.println("hello " + args[0]);
  }
}
